/// What is in force, read over NETCONF: the daemon's status list against the manager's own table.
#include <gmock/gmock.h>
#include <signal.h>

#include "netconf/xml.h"
#include "support/element/checks.h"
#include "support/netconf_client.h"

namespace test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kFilter =
    "<state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing><allowed-ip/></anti-ip-spoofing></state>";
const std::string kGet = "<get><filter type=\"subtree\">" + std::string{kFilter} + "</filter></get>";

std::string FilterOf(const std::string& interface) {
  return "<state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing><allowed-ip><interface>" + interface +
         "</interface></allowed-ip></anti-ip-spoofing></state>";
}

std::string TextOf(const netconf::XmlElement& row, std::string_view name) {
  for (const netconf::XmlElement* child = row.first_child; child != nullptr; child = child->next) {
    if (child->name->local == name) return std::string{netconf::Trim(child->text)};
  }
  return {};
}

std::string LineOf(const netconf::XmlElement& row) {
  const std::string address = TextOf(row, "address");
  const std::string interface = TextOf(row, "interface");
  std::string line;
  if (address == "all" || address == "ipv4-all" || address == "ipv6-all") line = ModeLine(interface, address);
  if (line.empty()) {
    const std::string mac = TextOf(row, "mac");
    line = "source " + interface + " " + address + " vlan " + TextOf(row, "vlan") + " mac " + mac;
  }
  if (TextOf(row, "state") != "in-force") line += " (" + TextOf(row, "state") + ")";
  return line;
}

/// The rows in <data>, as lines of the manager's table; one that comes twice fails the test.
Table StatusTable(const std::string& data) {
  Table table;
  if (data.empty()) return table;
  const auto document = netconf::XmlDocument::Parse(data);
  if (!document.ok()) return {"unreadable: " + document.error().Text()};
  const netconf::XmlElement* list = document.value()->root().first_child;  // anti-ip-spoofing
  for (const netconf::XmlElement* row = list != nullptr ? list->first_child : nullptr; row != nullptr;
       row = row->next) {
    EXPECT_TRUE(table.insert(LineOf(*row)).second) << LineOf(*row);
  }
  return table;
}

/// TableOf() without the lines that say that a port is enabled, which the status list does not have.
Table StatusOf(const Configuration& configuration) {
  Table table = TableOf(configuration);
  for (const auto& [name, interface] : configuration) table.erase(PortLine(name));
  return table;
}

Configuration Few() {
  Configuration configuration;
  configuration["sp1"].sources = {{{0x0a000001, 0}, ""}, {{0x0a000002, 100}, "02:00:00:00:00:02"}};
  configuration["sp1"].ipv6_all = true;
  configuration["sp2"].ipv4_all = true;
  configuration["sp3"].all = true;
  configuration["sp10"].sources = {{{0xdfffffff, 4094}, "fe:ff:ff:ff:ff:fe"}};
  return configuration;
}

class Status : public testing::Test {
 protected:
  void StartWith(const Configuration& configuration, const std::vector<std::string>& cdbd_options = {}) {
    element_.Start(Part::kCdbd, cdbd_options);
    CommitInPlace(element_, configuration);
    element_.StartAll();
    ExpectManagerHolds(element_, configuration);
  }
  /// Reads the list until it says what `configuration` does.
  void ExpectShown(const Configuration& configuration) {
    const Table wanted = StatusOf(configuration);
    Table shown;
    EXPECT_TRUE(Eventually([&] { return (shown = Read()) == wanted; }, Element::kLimit))
        << testing::PrintToString(shown);
  }
  /// The list as one reading gives it; a line with the answer when that is an error.
  Table Read() const {
    NetconfClient client{element_.NetconfSocket()};
    return TableIn(client.Rpc(kGet));
  }
  static Table TableIn(const std::string& answer) {
    const size_t begin = answer.find("<state");
    if (answer.find("rpc-error") != std::string::npos) return {answer};
    if (begin == std::string::npos) return {};
    return StatusTable(answer.substr(begin, answer.rfind("</data>") - begin));
  }
  /// All are asked for while the manager gives no answer.
  void ExpectWholeForReadersAtOnce(int readers) {
    StartWith(Few());
    ExpectShown(Few());
    element_.Pause(Part::kManager);
    std::vector<std::unique_ptr<NetconfClient>> waiting;
    for (int i = 0; i < readers; ++i) waiting.push_back(BeginReading());
    element_.Resume(Part::kManager);
    for (const auto& reader : waiting) EXPECT_EQ(TableIn(Answer(*reader)), StatusOf(Few()));
  }
  /// A reading that does not end by itself, sent in a session of its own.
  std::unique_ptr<NetconfClient> BeginReading() const {
    auto reader = std::make_unique<NetconfClient>(element_.NetconfSocket());
    const std::string message =
        "<rpc message-id=\"7\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + kGet + "</rpc>";
    EXPECT_TRUE(reader->raw().Send(message, NetconfClient::kLimit).ok());
    NetconfClient{element_.NetconfSocket()}.GetConfig();  // a later session: it is read after this one
    return reader;
  }
  static std::string Answer(NetconfClient& reader) {
    auto answer = reader.raw().Receive(NetconfClient::kLimit);
    return answer.ok() ? answer.value() : "no answer: " + answer.error().Text();
  }
  Element element_;
};

TEST_F(Status, OfAnEmptyElementIsEmpty) {
  StartWith({});
  ExpectShown({});
}

TEST_F(Status, HasEveryKindOfRow) {
  StartWith(Few());
  ExpectShown(Few());
}

TEST_F(Status, FollowsTheConfiguration) {
  StartWith(Few());
  Configuration changed = Few();
  changed.erase("sp3");
  changed["sp1"].sources[{0x0a000001, 0}] = "02:00:00:00:00:01";
  CommitInPlace(element_, changed);
  ExpectShown(changed);
}

TEST_F(Status, OfOneInterfaceHasItsRowsOnly) {
  StartWith(Few());
  ExpectShown(Few());
  NetconfClient client{element_.NetconfSocket()};
  Configuration one;
  one["sp1"] = Few()["sp1"];
  EXPECT_EQ(StatusTable(client.Get(FilterOf("sp1"))), StatusOf(one));
  EXPECT_EQ(StatusTable(client.Get(FilterOf("sp4"))), Table{});
}

TEST_F(Status, HoldsAsManyRowsAsThereAre) {
  Configuration full;
  for (uint32_t i = 0; i < 24576; ++i) full["sp" + std::to_string(i % 64)].sources[{0x0a000000 + i, 0}] = "";
  StartWith(full);
  ExpectShown(full);
}

TEST_F(Status, WhichTheManagerDoesNotGiveEndsWithAnErrorThatNamesTheCallpoint) {
  StartWith(Few(), {"--provider-timeout", "0.5"});
  element_.Pause(Part::kManager);
  const auto reader = BeginReading();
  // Nobody else waits meanwhile.
  NetconfClient other{element_.NetconfSocket()};
  EXPECT_THAT(other.GetConfig(), HasSubstr("sp10"));
  const std::string answer = Answer(*reader);
  EXPECT_THAT(answer, HasSubstr("rpc-error"));
  EXPECT_THAT(answer, HasSubstr("show-allowed-ip"));
  element_.Resume(Part::kManager);
  ExpectShown(Few());
  EXPECT_TRUE(element_.Running(Part::kDaemon));
}

TEST_F(Status, GivenTooLateForTheReaderDisturbsNoLaterOne) {
  StartWith(Few());
  for (int round = 0; round < 5; ++round) {
    element_.Pause(Part::kManager);
    BeginReading().reset();
    element_.Resume(Part::kManager);
    ExpectShown(Few());
  }
  EXPECT_TRUE(element_.Running(Part::kDaemon));
}

TEST_F(Status, ReadByTwoAtOnceHoldsUpNeither) { ExpectWholeForReadersAtOnce(2); }

TEST_F(Status, ReadByFourAtOnceIsWholeForEach) { ExpectWholeForReadersAtOnce(4); }

TEST_F(Status, ReaderThatLeavesDelaysNoOther) {
  StartWith(Few());
  ExpectShown(Few());
  element_.Pause(Part::kManager);
  const auto first = BeginReading();
  BeginReading().reset();
  const auto last = BeginReading();
  element_.Resume(Part::kManager);
  EXPECT_EQ(TableIn(Answer(*first)), StatusOf(Few()));
  EXPECT_EQ(TableIn(Answer(*last)), StatusOf(Few()));
}

TEST_F(Status, WhoseReaderIsKilledInTheMiddleIsReadAgainWithoutHarm) {
  Configuration many;
  for (uint32_t i = 0; i < 5000; ++i) many["sp" + std::to_string(i % 4)].sources[{0x0a000000 + i, 0}] = "";
  StartWith(many);
  for (int round = 0; round < 10; ++round) {
    ChildProcess reader{{element_.CliPath(), "show", "allowed-ip"}, element_.Environment(), element_.File("reader")};
    // At a different moment each time; some rounds it has ended before.
    Eventually([&] { return !reader.Running(); }, std::chrono::milliseconds{round * 5});
    reader.Signal(SIGKILL);
    reader.Wait(Element::kLimit);
  }
  ExpectShown(many);
  EXPECT_TRUE(element_.Running(Part::kDaemon));
}

TEST_F(Status, SurvivesThatTheDatabaseServerDiesWhileAnAnswerIsOwed) {
  StartWith(Few());
  element_.Pause(Part::kManager);
  const auto reader = BeginReading();
  element_.Kill(Part::kCdbd);
  EXPECT_THAT(Answer(*reader), HasSubstr("no answer"));
  element_.Start(Part::kCdbd);
  ASSERT_TRUE(element_.WaitForSocket(Part::kCdbd));
  element_.Resume(Part::kManager);
  ExpectShown(Few());
  EXPECT_TRUE(element_.Running(Part::kDaemon));
}

TEST_F(Status, OfADaemonThatDiesMeanwhileIsAnErrorAtOnce) {
  StartWith(Few());
  element_.Pause(Part::kManager);
  const auto reader = BeginReading();
  NetconfClient other{element_.NetconfSocket()};
  EXPECT_THAT(other.GetConfig(), HasSubstr("sp10"));
  element_.Kill(Part::kDaemon);
  const std::string answer = Answer(*reader);
  EXPECT_THAT(answer, HasSubstr("show-allowed-ip"));
  element_.Resume(Part::kManager);
  element_.Start(Part::kDaemon);
  ExpectShown(Few());
}

TEST_F(Status, IsShownByTheCommandLine) {
  StartWith(Few());
  ExpectShown(Few());
  const Finished table = element_.Cli({"show", "allowed-ip", "interface", "sp1"});
  EXPECT_EQ(table.status, 0) << table.log;
  EXPECT_THAT(table.output, HasSubstr("sp1   10.0.0.2        100       02:00:00:00:00:02  yes       on\n"));
  EXPECT_THAT(table.output, Not(HasSubstr("sp10")));
  EXPECT_THAT(element_.Cli({"show", "allowed-ip", "--json"}).output, HasSubstr("\"interface\": \"sp10\""));
  EXPECT_THAT(element_.Cli({"show", "allowed-ip", "--xml"}).output, HasSubstr("<interface>sp10</interface>"));
  EXPECT_THAT(element_.Cli({"show", "subscribers"}).output, HasSubstr("ip-spoofing-app"));
  element_.Stop(Part::kCdbd);
  const Finished down = element_.Cli({"show", "allowed-ip"});
  EXPECT_EQ(down.status, 4);
  EXPECT_THAT(down.log, HasSubstr("cannot open a session with the element: connect "));
}

}  // namespace
}  // namespace test
