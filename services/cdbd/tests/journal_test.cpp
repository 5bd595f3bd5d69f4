// The journal of commits, read over NETCONF.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cdbd_process.h"
#include "replies.h"

namespace cdbd::test {
namespace {

class Journal : public testing::Test {
 protected:
  Journal() { server.Start(); }
  /// The journal, without what differs from run to run.
  std::string Commits() {
    std::string text = server.Connect().Get("<commits xmlns=\"urn:ip-spoofing:cdb-monitor\"/>");
    for (const std::string name : {"time", "user"}) {
      const std::string open = "<" + name + ">";
      for (size_t at = text.find(open); at != std::string::npos; at = text.find(open, at)) {
        const size_t end = text.find("</", at);
        const std::string value = text.substr(at + open.size(), end - at - open.size());
        EXPECT_TRUE(name == "time" ? value.size() == 20 && value[10] == 'T' && value[19] == 'Z' : !value.empty())
            << value;
        text.replace(at, end + open.size() + 1 - at, "<" + name + "/>");
      }
    }
    return text;
  }
  static std::string Text(const std::string& commits) {
    return commits.empty() ? "" : "<commits xmlns=\"urn:ip-spoofing:cdb-monitor\">" + commits + "</commits>";
  }
  static std::string Commit(int number, int session, int created, int modified, int deleted, const std::string& changes,
                            const std::string& comment = "") {
    return "<commit><transaction>" + std::to_string(number) + "</transaction><time/><user/><session>" +
           std::to_string(session) + "</session>" + (comment.empty() ? "" : "<comment>" + comment + "</comment>") +
           "<created>" + std::to_string(created) + "</created><modified>" + std::to_string(modified) +
           "</modified><deleted>" + std::to_string(deleted) + "</deleted>" + changes + "</commit>";
  }
  static std::string Change(const std::string& keys, const std::string& operation, const std::string& leaves = "") {
    return "<change><path>/ais:config/anti-ip-spoofing/interface" + keys + "</path><operation>" + operation +
           "</operation>" + leaves + "</change>";
  }
  static std::string Leaf(const std::string& name, const std::string& operation, const std::string& values = "") {
    return "<leaf><name>" + name + "</name><operation>" + operation + "</operation>" + values + "</leaf>";
  }
  static std::string Old(const std::string& value) { return "<old-value>" + value + "</old-value>"; }
  static std::string New(const std::string& value) { return "<new-value>" + value + "</new-value>"; }
  /// Commits that interface, with these comment elements.
  static std::string Comment(NetconfClient& client, const std::string& interface, const std::string& comments) {
    return client.Rpc("<edit-config><target><running/></target><config>" + Interfaces({interface}) + "</config>" +
                      comments + "</edit-config>");
  }
  static std::string CommentElement(const std::string& text) {
    return "<comment xmlns=\"urn:ip-spoofing:cdb-monitor\">" + text + "</comment>";
  }
  static std::string Source(const std::string& content) {
    return AntiSpoofing("<interface><interface-name>eth1</interface-name><allowed-ip>" + content +
                        "</allowed-ip></interface>");
  }
  CdbdProcess server;
};

TEST_F(Journal, SaysWhoDidWhatTheLatestFirst) {
  EXPECT_EQ(Commits(), Text(""));  // session 1
  NetconfClient client = server.Connect();
  ASSERT_TRUE(IsOk(client.EditConfig(Interfaces({"eth1", "eth2"}))));
  ASSERT_TRUE(IsOk(client.EditConfig(Source("<ipv4><address>10.0.0.1</address><vlan>7</vlan></ipv4>"))));
  NetconfClient other = server.Connect();
  ASSERT_TRUE(IsOk(
      other.EditConfig(Source("<ipv4><address>10.0.0.1</address><vlan>7</vlan><mac>00:11:22:33:44:55</mac></ipv4>"))));
  ASSERT_TRUE(IsOk(other.EditConfig(AntiSpoofing(
      "<interface xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=\"delete\"><interface-name>eth1"
      "</interface-name></interface>"))));
  const std::string source = "{eth1}/allowed-ip/ipv4{10.0.0.1 7}";
  const std::string all =
      Commit(
          4, 3, 0, 0, 2,
          Change("{eth1}", "deleted") + Change(source, "deleted", Leaf("mac", "deleted", Old("00:11:22:33:44:55")))) +
      Commit(3, 3, 0, 1, 0, Change(source, "modified", Leaf("mac", "created", New("00:11:22:33:44:55")))) +
      Commit(2, 2, 1, 0, 0, Change(source, "created")) +
      Commit(1, 2, 2, 0, 0, Change("{eth1}", "created") + Change("{eth2}", "created"));
  EXPECT_EQ(Commits(), Text(all));
  // It is kept with the configuration.
  server.Kill();
  server.Start();
  EXPECT_EQ(Commits(), Text(all));
}

TEST_F(Journal, SaysWhatLeavesWereAndAre) {
  const std::string source = "{eth1}/allowed-ip/ipv4{10.0.0.1 7}";
  const auto mac = [](const std::string& address) {
    return Source("<ipv4><address>10.0.0.1</address><vlan>7</vlan><mac>" + address + "</mac></ipv4>");
  };
  NetconfClient client = server.Connect();
  ASSERT_TRUE(IsOk(client.EditConfig(mac("00:11:22:33:44:55"))));
  ASSERT_TRUE(IsOk(client.EditConfig(mac("00:11:22:33:44:66"))));
  ASSERT_TRUE(IsOk(client.EditConfig(Source("<ipv6-all/>"))));
  ASSERT_TRUE(IsOk(client.EditConfig(
      Source("<ipv6-all xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=\"delete\"/>"))));
  EXPECT_EQ(Commits(),
            Text(Commit(4, 1, 0, 1, 0, Change("{eth1}", "modified", Leaf("allowed-ip/ipv6-all", "deleted"))) +
                 Commit(3, 1, 0, 1, 0, Change("{eth1}", "modified", Leaf("allowed-ip/ipv6-all", "created"))) +
                 Commit(2, 1, 0, 1, 0,
                        Change(source, "modified",
                               Leaf("mac", "modified", Old("00:11:22:33:44:55") + New("00:11:22:33:44:66")))) +
                 Commit(1, 1, 2, 0, 0,
                        Change("{eth1}", "created") +
                            Change(source, "created", Leaf("mac", "created", New("00:11:22:33:44:55"))))));
}

TEST_F(Journal, HasTheCommentOfTheAuthor) {
  NetconfClient client = server.Connect();
  std::string longest;
  for (int i = 0; i < 255; ++i) longest += "\u00e9";
  ASSERT_TRUE(IsOk(Comment(client, "eth1", CommentElement(" ticket 4711: 1 &lt; 2\n"))));
  ASSERT_TRUE(IsOk(Comment(client, "eth2", CommentElement(longest))));
  ASSERT_TRUE(IsOk(Comment(client, "eth3", "")));
  EXPECT_EQ(Commits(), Text(Commit(3, 1, 1, 0, 0, Change("{eth3}", "created")) +
                            Commit(2, 1, 1, 0, 0, Change("{eth2}", "created"), longest) +
                            Commit(1, 1, 1, 0, 0, Change("{eth1}", "created"), " ticket 4711: 1 &lt; 2\n")));
}

TEST_F(Journal, RefusesWhatIsNotAComment) {
  NetconfClient client = server.Connect();
  const auto refused = [](const std::string& tag, const std::string& message) {
    return ErrorText{.type = "protocol", .tag = tag, .message = message, .info = "<bad-element>comment</bad-element>"}
        .Xml();
  };
  const std::string length = "Unsatisfied length - string \"";
  for (const std::string& text : {std::string{}, std::string(256, 'c')})
    EXPECT_EQ(Inside(Comment(client, "eth1", CommentElement(text))),
              refused("invalid-value", "'comment': " + length + text + "\" length is not allowed."));
  EXPECT_EQ(Inside(Comment(client, "eth1", CommentElement("<b/>"))),
            refused("invalid-value", "'comment': holds elements"));
  EXPECT_EQ(Inside(Comment(client, "eth1", CommentElement("a") + CommentElement("b"))),
            refused("bad-element", "'comment' is there more than once"));
  EXPECT_EQ(Inside(Comment(client, "eth1", "<comment>in the namespace of NETCONF</comment>")),
            refused("unknown-element", "&lt;edit-config&gt; has no parameter 'comment'"));
  EXPECT_EQ(Commits(), Text(""));
}

TEST_F(Journal, HasNothingOfWhatChangedNothing) {
  NetconfClient client = server.Connect();
  ASSERT_TRUE(IsOk(client.EditConfig(Interfaces({"eth1"}))));
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth1"})))) << "it is so already";
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth2"}), "<test-option>test-only</test-option>")));
  EXPECT_FALSE(IsOk(client.EditConfig(Interfaces({"eth2", "a name that is none"}))));
  EXPECT_EQ(Commits(), Text(Commit(1, 1, 1, 0, 0, Change("{eth1}", "created"))));
}

TEST_F(Journal, NamesTheFirstOfManyChanges) {
  std::vector<std::string> names;
  std::string changes;
  for (int i = 10; i < 30; ++i) {
    names.push_back("eth" + std::to_string(i));
    if (i < 18) changes += Change("{" + names.back() + "}", "created");
  }
  ASSERT_TRUE(IsOk(server.Connect().EditConfig(Interfaces(names))));
  EXPECT_EQ(Commits(), Text(Commit(1, 1, 20, 0, 0, changes)));
}

TEST_F(Journal, ForgetsTheOldest) {
  constexpr int kKept = 128;
  constexpr int kCommits = kKept + 3;
  NetconfClient client = server.Connect();
  for (int i = 1; i <= kCommits; ++i) ASSERT_TRUE(IsOk(client.EditConfig(Interfaces({"eth" + std::to_string(i)}))));
  std::string kept;
  for (int i = kCommits; i > kCommits - kKept; --i)
    kept += Commit(i, 1, 1, 0, 0, Change("{eth" + std::to_string(i) + "}", "created"));
  EXPECT_EQ(Commits(), Text(kept));
}

}  // namespace
}  // namespace cdbd::test
