// Operational data of a provider that is spoken for message by message, read over NETCONF.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <thread>

#include "cdbd_process.h"
#include "program.h"

namespace cdbd::test {
namespace {

using cdb_store::StoreInt;
using cdb_store::ValueType;
using confd_wire::ClientKind;
using confd_wire::GetNext;
using confd_wire::GetObject;
using confd_wire::MessageType;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kCallpoint = "show-allowed-ip";
constexpr const char* kFilter = "<state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing/></state>";
const std::string kOpen = "<state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing>";
const std::string kClose = "</anti-ip-spoofing></state>";

enum Tag : uint32_t {
  kMac = 0x1c4b7396,
  kAddress = 0x4b843099,
  kVlan = 0x0442b85d,
  kState = 0x3363fe59,
  kInterface = 0x0d34ee32,
  kFiltering = 0x74470328
};

confd_wire::TagValue Enum(uint32_t tag, int32_t value) { return {tag, 0, {ValueType::kEnum, StoreInt(value)}}; }
confd_wire::TagValue Bytes(uint32_t tag, ValueType type, const std::string& bytes) { return {tag, 0, {type, bytes}}; }
confd_wire::TagValue Number(uint32_t tag, uint32_t value) { return {tag, 0, {ValueType::kUint32, StoreInt(value)}}; }

using Values = std::vector<confd_wire::TagValue>;
Values Row(const std::string& interface, char last_octet) {
  return {Enum(kMac, 0),
          Bytes(kAddress, ValueType::kIpv4, std::string{10, 0, 0, last_octet}),
          Number(kVlan, 7),
          Enum(kState, 1),
          Bytes(kInterface, ValueType::kString, interface),
          Enum(kFiltering, 1)};
}
std::string RowText(int position, const std::string& interface, int last_octet) {
  return "<allowed-ip><position>" + std::to_string(position) + "</position><mac>any</mac><address>10.0.0." +
         std::to_string(last_octet) + "</address><vlan>7</vlan><state>in-force</state><interface>" + interface +
         "</interface><filtering>on</filtering></allowed-ip>";
}

/// A data provider: a control and a worker connection.
class Provider final {
 public:
  explicit Provider(CdbdProcess& server, const std::string& name = "app")
      : control{server.CdbSocket(), ClientKind::kControl, name},
        worker{server.CdbSocket(), ClientKind::kWorker, name, control.hello.id} {}

  std::string Register(const std::string& callpoint = kCallpoint, bool get_object = true) {
    confd_wire::Register message;
    message.callpoints.push_back({callpoint, true, get_object});
    control.Send(message);
    const auto reply = control.Receive<confd_wire::RegisterReply>();
    return reply ? reply->error : "no reply";
  }
  /// Takes the next transaction on; its number.
  int32_t Accept() {
    const auto init = control.Receive<confd_wire::TransInit>();
    if (!init) return 0;
    confd_wire::TransInitReply reply;
    reply.thandle = init->thandle;
    reply.worker_id = worker.hello.id;
    control.Send(reply);
    return init->thandle;
  }
  void Key(const GetNext& request, int64_t key) {
    confd_wire::NextKeyReply reply;
    reply.request = request.request;
    reply.keys = {{ValueType::kInt64, StoreInt(key)}};
    reply.next = key + 1;
    worker.Send(reply);
  }
  void End(const GetNext& request) {
    confd_wire::NextKeyReply reply;
    reply.request = request.request;
    reply.end = true;
    worker.Send(reply);
  }
  void Object(const GetObject& request, const Values& values) {
    confd_wire::ObjectReply reply;
    reply.request = request.request;
    reply.values = values;
    worker.Send(reply);
  }
  /// Serves one transaction to its end, that the server tells; the highest number of requests that were open at once.
  size_t Serve(const std::vector<Values>& rows) {
    Accept();
    size_t most = 0;
    while (true) {
      std::vector<std::string> open{worker.ReceiveBytes().value_or("")};
      while (const auto more = worker.ReceiveBytes(0)) open.push_back(*more);
      most = std::max(most, open.size());
      for (const std::string& packet : open) {
        if (const auto next = confd_wire::Decode<GetNext>(packet)) {
          const int64_t key = next->next < 0 ? 0 : next->next;
          key < static_cast<int64_t>(rows.size()) ? Key(*next, key) : End(*next);
        } else if (const auto get = confd_wire::Decode<GetObject>(packet)) {
          Object(*get, rows[static_cast<size_t>(cdb_store::LoadInt<int64_t>(get->keys))]);
        } else {
          return most;
        }
      }
    }
  }

  Program control;
  Program worker;
};

class PendingGet final {
 public:
  PendingGet(CdbdProcess& server, const std::string& filter)
      : reply_{std::async(std::launch::async, [&server, filter] {
          return server.Connect().Rpc("<get><filter>" + filter + "</filter></get>");
        })} {}
  /// What is inside <data>, or the whole reply.
  std::string Reply() {
    const std::string reply = reply_.get();
    const size_t begin = reply.find("<data>");
    return begin == std::string::npos ? reply : reply.substr(begin + 6, reply.rfind("</data>") - begin - 6);
  }

 private:
  std::future<std::string> reply_;
};

class ProviderData : public testing::Test {
 protected:
  explicit ProviderData(const std::vector<std::string>& options = {}) : server{options} { server.Start(); }
  CdbdProcess server;
};
class ImpatientProviderData : public ProviderData {
 protected:
  ImpatientProviderData() : ProviderData{{"--provider-timeout", "0.4"}} {}
};

TEST_F(ProviderData, EveryKindOfValueIsWrittenInTheModelsWords) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  PendingGet get{server, kFilter};
  Values v6 = Row("eth1", 1);
  v6[1] = Bytes(kAddress, ValueType::kIpv6, std::string{32, 1, 13, -72} + std::string(11, '\0') + '\1');
  Values all = Row("eth2", 1);
  all[1] = Enum(kAddress, 0);
  all[2] = Enum(kVlan, 0);
  all[3] = Enum(kState, 0);
  all[5] = Enum(kFiltering, 0);
  Values ipv4_all = all;
  ipv4_all[1] = Enum(kAddress, 1);
  Values ipv6_all = all;
  ipv6_all[1] = Enum(kAddress, 2);
  Values with_mac = Row("eth3", -1);
  with_mac[0] = Bytes(kMac, ValueType::kBinary, std::string{0, 17, 34, -86, -69, -1});
  Values without_address = Row("", 1);
  without_address.erase(without_address.begin() + 1);
  provider.Serve({v6, all, ipv4_all, ipv6_all, with_mac, without_address});
  const auto row = [](int position, const std::string& leaves) {
    return "<allowed-ip><position>" + std::to_string(position) + "</position>" + leaves + "</allowed-ip>";
  };
  const auto mode = [](const std::string& address) {
    return "<mac>any</mac><address>" + address +
           "</address><vlan>none</vlan><state>not-in-force</state><interface>eth2</interface><filtering>off</"
           "filtering>";
  };
  EXPECT_EQ(get.Reply(),
            kOpen +
                row(0,
                    "<mac>any</mac><address>2001:db8::1</address><vlan>7</vlan><state>in-force</state><interface>eth1"
                    "</interface><filtering>on</filtering>") +
                row(1, mode("all")) + row(2, mode("ipv4-all")) + row(3, mode("ipv6-all")) +
                row(4,
                    "<mac>00:11:22:aa:bb:ff</mac><address>10.0.0.255</address><vlan>7</vlan><state>in-force</state>"
                    "<interface>eth3</interface><filtering>on</filtering>") +
                row(5, "<mac>any</mac><vlan>7</vlan><state>in-force</state><interface/><filtering>on</filtering>") +
                kClose);
}

TEST_F(ProviderData, AnEmptyListIsNoError) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  PendingGet get{server, kFilter};
  provider.Serve({});
  EXPECT_EQ(get.Reply(), "");
}

TEST_F(ProviderData, TheObjectAndTheNextKeyAreAskedForTogether) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  PendingGet get{server, kFilter};
  provider.Accept();
  const auto first = provider.worker.Receive<GetNext>();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->next, -1);
  EXPECT_EQ(first->callpoint, kCallpoint);
  EXPECT_TRUE(provider.worker.Quiet());
  provider.Key(*first, 0);
  const auto object = provider.worker.Receive<GetObject>();
  const auto second = provider.worker.Receive<GetNext>();
  ASSERT_TRUE(object && second);
  EXPECT_EQ(second->next, 1);
  // Answers may come in any order.
  provider.End(*second);
  provider.Object(*object, Row("eth0", 1));
  EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
  EXPECT_EQ(get.Reply(), kOpen + RowText(0, "eth0", 1) + kClose);
}

TEST_F(ProviderData, IsFilteredByContent) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  const auto ask = [&](const std::string& filter) {
    PendingGet get{server, kOpen + "<allowed-ip>" + filter + "</allowed-ip>" + kClose};
    provider.Serve({Row("eth0", 1), Row("eth1", 2), Row("eth0", 3)});
    return get.Reply();
  };
  EXPECT_EQ(ask("<interface>eth0</interface>"), kOpen + RowText(0, "eth0", 1) + RowText(2, "eth0", 3) + kClose);
  EXPECT_EQ(ask("<position>1</position>"), kOpen + RowText(1, "eth1", 2) + kClose);
  EXPECT_EQ(ask("<interface>eth1</interface><address/>"),
            kOpen +
                "<allowed-ip><position>1</position><address>10.0.0.2</address><interface>eth1</interface>"
                "</allowed-ip>" +
                kClose);
  EXPECT_EQ(ask("<interface>eth9</interface>"), "");
}

TEST_F(ProviderData, IsNotAskedForWhatIsNotSelected) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  EXPECT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth0"}))));
  EXPECT_EQ(server.Connect().Get("<config xmlns=\"\"/>"), Interfaces({"eth0"}));
  EXPECT_EQ(server.Connect().GetConfig(), Interfaces({"eth0"}));
  EXPECT_TRUE(provider.control.Quiet());
}

TEST_F(ProviderData, WithoutAProviderWhoAsksForItIsToldAndWhoAsksForAllGetsTheRest) {
  NetconfClient client = server.Connect();
  EXPECT_THAT(client.Rpc("<get><filter>" + std::string{kFilter} + "</filter></get>"),
              HasSubstr("callpoint 'show-allowed-ip': no data provider is connected"));
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth0"}))));
  const std::string all = client.Get();
  EXPECT_THAT(all, HasSubstr(Interfaces({"eth0"})));
  EXPECT_THAT(all, HasSubstr("<netconf-state "));
  EXPECT_THAT(all, HasSubstr("<database "));
}

TEST_F(ProviderData, TwoReadersAreServedSideBySide) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  PendingGet first{server, kFilter};
  const int32_t first_handle = provider.Accept();
  const auto first_next = provider.worker.Receive<GetNext>();
  PendingGet second{server, kFilter};
  const int32_t second_handle = provider.Accept();
  const auto second_next = provider.worker.Receive<GetNext>();
  ASSERT_TRUE(first_next && second_next);
  EXPECT_NE(first_handle, second_handle);
  EXPECT_EQ(second_next->thandle, second_handle);
  provider.End(*second_next);
  EXPECT_EQ(second.Reply(), "");
  ASSERT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
  provider.Key(*first_next, 0);
  const auto object = provider.worker.Receive<GetObject>();
  const auto next = provider.worker.Receive<GetNext>();
  ASSERT_TRUE(object && next);
  provider.Object(*object, Row("eth0", 1));
  provider.End(*next);
  EXPECT_EQ(first.Reply(), kOpen + RowText(0, "eth0", 1) + kClose);
}

TEST_F(ProviderData, ARowThatIsGoneWhenItIsAskedForIsLeftOut) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  PendingGet get{server, kFilter};
  provider.Accept();
  provider.Key(provider.worker.Receive<GetNext>().value(), 0);
  confd_wire::NotFoundReply gone;
  gone.request = provider.worker.Receive<GetObject>().value().request;
  provider.worker.Send(gone);
  provider.End(provider.worker.Receive<GetNext>().value());
  EXPECT_EQ(get.Reply(), "");
}

TEST_F(ProviderData, AReaderThatGoesAwayEndsTheTransaction) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  {
    NetconfClient reader = server.Connect();
    ASSERT_TRUE(reader.raw()
                    .Send("<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><get><filter>" +
                              std::string{kFilter} + "</filter></get></rpc>",
                          NetconfClient::kLimit)
                    .ok());
    provider.Accept();
  }
  EXPECT_TRUE(
      Eventually([&] { return server.Log().find("session 1 ended") != std::string::npos; }, NetconfClient::kLimit));
  provider.Key(provider.worker.Receive<GetNext>().value(), 0);
  EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
}

struct Failing {
  std::string name;
  std::function<void(Provider&)> act;  ///< after the first row's key was asked for
  std::string error;
};
class ProviderFailure : public testing::TestWithParam<Failing> {};

TEST_P(ProviderFailure, IsToldWithTheCallpointsName) {
  CdbdProcess server;
  server.Start();
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  PendingGet get{server, kFilter};
  GetParam().act(provider);
  const std::string reply = get.Reply();
  EXPECT_THAT(reply, HasSubstr("<error-tag>operation-failed</error-tag><error-severity>error</error-severity>"));
  EXPECT_THAT(reply, HasSubstr("callpoint 'show-allowed-ip': " + GetParam().error));
  EXPECT_EQ(server.Connect().GetConfig(), "");
}

const std::string kWho = "the data provider 'app' (process " + std::to_string(::getpid()) + ")";

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

TEST_F(ImpatientProviderData, ASilentProviderIsToldOfWithinTheLimitAndHoldsNobodyUp) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
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

TEST_F(ImpatientProviderData, TheLimitIsForEachAnswer) {
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
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

TEST_F(ProviderData, TheLatestOfTwoProvidersServes) {
  Provider old{server, "old"};
  ASSERT_EQ(old.Register(), "");
  Provider latest{server, "latest"};
  ASSERT_EQ(latest.Register(), "");
  PendingGet get{server, kFilter};
  latest.Serve({Row("eth0", 1)});
  EXPECT_EQ(get.Reply(), kOpen + RowText(0, "eth0", 1) + kClose);
  EXPECT_TRUE(old.control.Quiet());
  EXPECT_THAT(server.Connect().Get("<database xmlns=\"\"><provider/></database>"),
              HasSubstr("<name>latest</name><process>" + std::to_string(::getpid()) +
                        "</process><callpoint>show-allowed-ip</callpoint>"));
}

TEST_F(ProviderData, RegistrationsAreChecked) {
  Provider provider{server};
  EXPECT_EQ(provider.Register("nonsense"), "the data model has no callpoint 'nonsense'");
  EXPECT_EQ(provider.Register(kCallpoint, false), "callpoint 'show-allowed-ip' needs get_next and get_object");
  EXPECT_EQ(provider.Register(), "");
  Program orphan{server.CdbSocket(), ClientKind::kWorker, "orphan", 4711};
  EXPECT_EQ(orphan.hello.error, "there is no such control connection");
  EXPECT_TRUE(orphan.Closed());
}

TEST_F(ProviderData, ManyRowsComeWhole) {
  constexpr int kRows = 24576;
  Provider provider{server};
  ASSERT_EQ(provider.Register(), "");
  PendingGet get{server, kFilter};
  std::vector<Values> rows;
  std::string expected;
  for (int i = 0; i < kRows; ++i) {
    rows.push_back(Row("eth" + std::to_string(i % 64), static_cast<char>(i % 100)));
    expected += RowText(i, "eth" + std::to_string(i % 64), i % 100);
  }
  EXPECT_GE(provider.Serve(rows), 2U);
  EXPECT_EQ(get.Reply(), kOpen + expected + kClose);
}

}  // namespace
}  // namespace cdbd::test
