// Operational data of a provider that fails, dies or is slow.
#include <functional>
#include <thread>

#include "provider_fixture.h"

namespace cdbd::test {
namespace {

using testing::HasSubstr;

struct Failing {
  std::string name;
  std::function<void(Provider&)> act;  ///< after the first row's key was asked for
  std::string error;
};
class ProviderFailure : public OneProvider, public testing::WithParamInterface<Failing> {};

TEST_P(ProviderFailure, IsToldWithTheCallpointsName) {
  PendingGet get{server, kFilter};
  GetParam().act(provider);
  const std::string reply = get.Reply();
  EXPECT_THAT(reply, HasSubstr("<error-tag>operation-failed</error-tag><error-severity>error</error-severity>"));
  EXPECT_THAT(reply, HasSubstr("callpoint 'show-allowed-ip': " + GetParam().error));
  EXPECT_EQ(server.Connect().GetConfig(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Providers, ProviderFailure,
    testing::Values(
        Failing{"RefusesTheTransaction",
                [](Provider& p) {
                  confd_wire::TransInitReply reply;
                  reply.thandle = p.control.Receive<confd_wire::TransInit>().value().thandle;
                  reply.error = "not today";
                  p.control.Send(reply);
                },
                "not today"},
        Failing{"NamesNoWorker",
                [](Provider& p) {
                  confd_wire::TransInitReply reply;
                  reply.thandle = p.control.Receive<confd_wire::TransInit>().value().thandle;
                  reply.worker_id = 12345;
                  p.control.Send(reply);
                },
                "the data provider named no worker connection"},
        Failing{"LosesItsControlBeforeTheStart",
                [](Provider& p) {
                  p.control.Receive<confd_wire::TransInit>();
                  p.control.Disconnect();
                },
                kWho + " disconnected"},
        Failing{"LosesItsWorkerInMidList",
                [](Provider& p) {
                  p.Accept();
                  p.Answer(p.Asked().request, 0, {Row("eth0", 1)}, false);
                  p.Asked();
                  p.worker.Disconnect();
                },
                kWho + " disconnected"},
        Failing{"LosesItsControlInMidList",
                [](Provider& p) {
                  p.Accept();
                  p.Answer(p.Asked().request, 0, {Row("eth0", 1)}, false);
                  p.control.Disconnect();
                },
                kWho + " disconnected"},
        Failing{"AnswersWithAnError",
                [](Provider& p) {
                  p.Accept();
                  p.worker.Send(confd_wire::ReadFailed{p.Asked().request, "out of order"});
                },
                "out of order"},
        Failing{"GivesAKeyOfAnotherType",
                [](Provider& p) {
                  p.Accept();
                  p.worker.Send(confd_wire::Rows{p.Asked().request, {{{{ValueType::kString, "0"}}, {}}}, true, -1});
                },
                "the data provider's key 'position' is of another type"},
        Failing{"GivesTwoKeys",
                [](Provider& p) {
                  p.Accept();
                  const confd_wire::Value key = Key(0)[0];
                  p.worker.Send(confd_wire::Rows{p.Asked().request, {{{key, key}, {}}}, true, -1});
                },
                "the data provider gave a wrong number of keys"},
        Failing{"SendsAnUnknownTag",
                [](Provider& p) {
                  p.Accept();
                  p.Answer(p.Asked().request, 0, {{Enum(0x12345678, 0)}}, true);
                },
                "the data provider sent a value with the unknown tag 0x12345678"}),
    [](const auto& row) { return row.param.name; });

TEST_F(ImpatientOneProvider, SilentProviderFailsAndHoldsUpNoOthers) {
  PendingGet get{server, kFilter};
  provider.Accept();
  const ReadRows forgotten = provider.Asked();
  NetconfClient other = server.Connect();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(IsOk(other.EditConfig(Interfaces({"eth" + std::to_string(i)}))));
  EXPECT_THAT(get.Reply(), HasSubstr("callpoint 'show-allowed-ip': " + kWho + " did not answer within 0.4 s"));
  EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
  // A late answer is ignored, and the provider is as good as before.
  provider.End(forgotten.request);
  PendingGet again{server, kFilter};
  provider.Serve({Row("eth0", 1)});
  EXPECT_EQ(again.Reply(), kOpen + RowText(0, "eth0", 1) + kClose);
}

TEST_F(ImpatientOneProvider, LimitIsForEachPage) {
  PendingGet get{server, kFilter};
  provider.Accept();
  std::string rows;
  for (int i = 0; i < 6; ++i) {  // all together more than the limit
    const ReadRows asked = provider.Asked();
    std::this_thread::sleep_for(std::chrono::milliseconds{100});
    provider.Answer(asked.request, i, {Row("eth0", static_cast<char>(i))}, i == 5);
    rows += RowText(i, "eth0", i);
  }
  EXPECT_EQ(get.Reply(), kOpen + rows + kClose);
}

}  // namespace
}  // namespace cdbd::test
