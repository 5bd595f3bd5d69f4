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
                  p.Key(p.worker.Receive<GetNext>().value(), 0);
                  p.worker.Receive<GetObject>();
                  p.worker.Disconnect();
                },
                kWho + " disconnected"},
        Failing{"LosesItsControlInMidList",
                [](Provider& p) {
                  p.Accept();
                  p.Key(p.worker.Receive<GetNext>().value(), 0);
                  p.control.Disconnect();
                },
                kWho + " disconnected"},
        Failing{"AnswersWithAnError",
                [](Provider& p) {
                  p.Accept();
                  confd_wire::ErrorReply reply;
                  reply.request = p.worker.Receive<GetNext>().value().request;
                  reply.text = "out of order";
                  p.worker.Send(reply);
                },
                "out of order"},
        Failing{"GivesAKeyOfAnotherType",
                [](Provider& p) {
                  p.Accept();
                  confd_wire::NextKeyReply reply;
                  reply.request = p.worker.Receive<GetNext>().value().request;
                  reply.keys = {{ValueType::kString, "0"}};
                  p.worker.Send(reply);
                },
                "the data provider's key 'position' is of another type"},
        Failing{"GivesTwoKeys",
                [](Provider& p) {
                  p.Accept();
                  confd_wire::NextKeyReply reply;
                  reply.request = p.worker.Receive<GetNext>().value().request;
                  reply.keys = {{ValueType::kInt64, StoreInt(int64_t{0})}, {ValueType::kInt64, StoreInt(int64_t{0})}};
                  p.worker.Send(reply);
                },
                "the data provider gave a wrong number of keys"},
        Failing{"SendsAnUnknownTag",
                [](Provider& p) {
                  p.Accept();
                  p.Key(p.worker.Receive<GetNext>().value(), 0);
                  p.Object(p.worker.Receive<GetObject>().value(), {Enum(0x12345678, 0)});
                },
                "the data provider sent a value with the unknown tag 0x12345678"}),
    [](const auto& row) { return row.param.name; });

TEST_F(ImpatientOneProvider, ASilentProviderIsToldOfWithinTheLimitAndHoldsNobodyUp) {
  PendingGet get{server, kFilter};
  provider.Accept();
  const auto forgotten = provider.worker.Receive<GetNext>();
  ASSERT_TRUE(forgotten);
  NetconfClient other = server.Connect();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(IsOk(other.EditConfig(Interfaces({"eth" + std::to_string(i)}))));
  EXPECT_THAT(get.Reply(), HasSubstr("callpoint 'show-allowed-ip': " + kWho + " did not answer within 0.4 s"));
  EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
  // A late answer is nobody's, and the provider is as good as before.
  provider.Key(*forgotten, 0);
  PendingGet again{server, kFilter};
  provider.Serve({Row("eth0", 1)});
  EXPECT_EQ(again.Reply(), kOpen + RowText(0, "eth0", 1) + kClose);
}

TEST_F(ImpatientOneProvider, TheLimitIsForEachPair) {
  PendingGet get{server, kFilter};
  provider.Accept();
  auto next = provider.worker.Receive<GetNext>();
  std::string rows;
  for (int i = 0; i < 6; ++i) {  // all together more than the limit
    ASSERT_TRUE(next);
    std::this_thread::sleep_for(std::chrono::milliseconds{100});
    provider.Key(*next, i);
    const auto object = provider.worker.Receive<GetObject>();
    ASSERT_TRUE(object);
    provider.Object(*object, Row("eth0", static_cast<char>(i)));
    next = provider.worker.Receive<GetNext>();
    rows += RowText(i, "eth0", i);
  }
  provider.End(*next);
  EXPECT_EQ(get.Reply(), kOpen + rows + kClose);
}

TEST_F(ImpatientOneProvider, HalfAPairIsNoAnswer) {
  for (const bool key : {true, false}) {
    PendingGet get{server, kFilter};
    provider.Accept();
    provider.Key(provider.worker.Receive<GetNext>().value(), 0);
    const auto object = provider.worker.Receive<GetObject>();
    const auto next = provider.worker.Receive<GetNext>();
    ASSERT_TRUE(object && next);
    key ? provider.End(*next) : provider.Object(*object, Row("eth0", 1));
    EXPECT_THAT(get.Reply(), HasSubstr("callpoint 'show-allowed-ip': " + kWho + " did not answer within 0.4 s"));
    EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
    key ? provider.Object(*object, Row("eth0", 1)) : provider.End(*next);  // nobody's
  }
}

}  // namespace
}  // namespace cdbd::test
