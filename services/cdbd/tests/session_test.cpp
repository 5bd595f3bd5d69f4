// NETCONF sessions of a real server: the answer to every kind of bad request, and that the session lives on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cdbd_process.h"
#include "replies.h"

namespace cdbd::test {
namespace {

constexpr std::chrono::milliseconds kLimit = NetconfClient::kLimit;
const std::string kNc = "xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"";

struct Row {
  std::string name;
  std::string message;  ///< whole, unframed; "$" at its start: the inside of a good <rpc>
  std::string reply;    ///< whole, without the <rpc-reply> around it
  bool base_1_1 = true;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.message; }

std::string Error(const std::string& type, const std::string& tag, const std::string& message,
                  const std::string& info = "") {
  return ErrorText{.type = type, .tag = tag, .message = message, .info = info}.Xml();
}

std::string BadElement(const std::string& name) { return "<bad-element>" + name + "</bad-element>"; }

class Answers : public testing::TestWithParam<Row> {
 protected:
  static void SetUpTestSuite() {
    server = new CdbdProcess;
    server->Start();
  }
  static void TearDownTestSuite() {
    delete server;
    server = nullptr;
  }
  static CdbdProcess* server;
};
CdbdProcess* Answers::server = nullptr;

TEST_P(Answers, AndTheSessionLivesOn) {
  NetconfClient client = server->Connect(GetParam().base_1_1);
  std::string message = GetParam().message;
  if (message[0] == '$') message = "<rpc message-id=\"1\" " + kNc + ">" + message.substr(1) + "</rpc>";
  ASSERT_TRUE(client.raw().Send(message, kLimit).ok());
  const auto reply = client.raw().Receive(kLimit);
  ASSERT_TRUE(reply.ok()) << reply.error().Text();
  EXPECT_EQ(Inside(reply.value()), GetParam().reply);
  EXPECT_EQ(client.GetConfig(), "");
}

/// What is in `text` after `open` and before the next `close`; "" if either is missing.
std::string Between(const std::string& text, const std::string& open, const std::string& close) {
  const size_t begin = text.find(open);
  const size_t end = begin == std::string::npos ? begin : text.find(close, begin + open.size());
  return end == std::string::npos ? "" : text.substr(begin + open.size(), end - begin - open.size());
}

const std::string kEdit = "<edit-config><target><running/></target>";

std::string UnexpectedAttribute(const std::string& attribute, const std::string& element) {
  return Error("protocol", "unknown-attribute", "unexpected attribute '" + attribute + "'",
               "<bad-attribute>" + attribute + "</bad-attribute>" + BadElement(element));
}

std::string BadAttributeValue(const std::string& message, const std::string& attribute, const std::string& element) {
  return Error("protocol", "bad-attribute", message,
               "<bad-attribute>" + attribute + "</bad-attribute>" + BadElement(element));
}

/// ASCII `text` in UTF-16, each character as `high` and its code in the order of `big_endian`.
std::string Utf16(std::string_view text, bool big_endian) {
  std::string out;
  for (const char c : text) out += big_endian ? std::string{'\0', c} : std::string{c, '\0'};
  return out;
}

const std::string kGet = "<rpc message-id=\"1\" " + kNc + "><get/></rpc>";
const std::string kNotUtf8 = Error("rpc", "malformed-message", "line 1: only the encoding UTF-8 is allowed");
const std::string kNcPrefix = " xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"";
const std::string kValidate = "<validate><source><running/></source></validate>";
const std::string kOnlyElements = "text where only elements are expected";

INSTANTIATE_TEST_SUITE_P(
    Sessions, Answers,
    testing::Values(
        Row{"Malformed", "<rpc", Error("rpc", "malformed-message", "line 1: unclosed token")},
        Row{"MalformedInBase10", "<rpc", Error("rpc", "operation-failed", "line 1: unclosed token"), false},
        Row{"EmptyMessage", " ", Error("rpc", "malformed-message", "line 1: no element found")},
        Row{"NotUtf8", "<rpc message-id=\"\xff\"/>",
            Error("rpc", "malformed-message", "line 1: not well-formed (invalid token)")},
        Row{"Utf16BigEndian", "\xfe\xff" + Utf16(kGet, true), kNotUtf8},
        Row{"Utf16LittleEndian", "\xff\xfe" + Utf16(kGet, false), kNotUtf8},
        Row{"Utf16BigEndianWithoutMark", Utf16(kGet, true), kNotUtf8},
        Row{"Utf16LittleEndianWithoutMark", Utf16(kGet, false), kNotUtf8},
        Row{"DeclaredLatin1", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + kGet, kNotUtf8},
        Row{"DeclaredUtf16", "<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + kGet, kNotUtf8},
        Row{"DeclaredUnknownEncoding", "<?xml version=\"1.0\" encoding=\"none\"?>" + kGet, kNotUtf8},
        Row{"DeclaredLatin1InBase10", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + kGet,
            Error("rpc", "operation-failed", "line 1: only the encoding UTF-8 is allowed"), false},
        Row{"DeclaredUtf8",
            "<?xml version=\"1.0\" encoding=\"utf-8\"?><rpc message-id=\"1\" " + kNc + ">" + kValidate + "</rpc>",
            "<ok/>"},
        Row{"ByteOrderMarkOfUtf8", "\xef\xbb\xbf<rpc message-id=\"1\" " + kNc + ">" + kValidate + "</rpc>", "<ok/>"},
        Row{"DocumentType", "<!DOCTYPE rpc><rpc/>",
            Error("rpc", "malformed-message", "line 1: a document type declaration is not allowed")},
        Row{"NoRpc", "<hello " + kNc + "/>",
            Error("protocol", "unknown-element", "a request is an &lt;rpc&gt; element", BadElement("hello"))},
        Row{"RpcInNoNamespace", "<rpc message-id=\"1\"><get/></rpc>",
            Error("protocol", "unknown-namespace", "&lt;rpc&gt; is not in the namespace of NETCONF",
                  BadElement("rpc") + "<bad-namespace/>")},
        Row{"NoMessageId", "<rpc " + kNc + "><get/></rpc>",
            Error("rpc", "missing-attribute", "&lt;rpc&gt; has no message-id",
                  "<bad-attribute>message-id</bad-attribute>" + BadElement("rpc"))},
        Row{"NoOperation", "$",
            Error("protocol", "missing-element", "&lt;rpc&gt; holds exactly one operation", BadElement("rpc"))},
        Row{"TwoOperations", "$<get/><get/>",
            Error("protocol", "bad-element", "&lt;rpc&gt; holds exactly one operation", BadElement("get"))},
        Row{"UnknownOperation", "$<reboot/>",
            Error("protocol", "operation-not-supported", "there is no operation 'reboot'")},
        Row{"OperationOfAnUnknownNamespace", "$<reboot xmlns=\"urn:other\"/>",
            Error("protocol", "unknown-namespace", "there is no operation 'reboot'",
                  BadElement("reboot") + "<bad-namespace>urn:other</bad-namespace>")},
        Row{"OperationOfACapabilityThatIsNotThere", "$<commit/>",
            Error("protocol", "operation-not-supported", "there is no operation 'commit'")},
        Row{"UnknownParameter", "$<get><depth>1</depth></get>",
            Error("protocol", "unknown-element", "&lt;get&gt; has no parameter 'depth'", BadElement("depth"))},
        Row{"ParameterTwice", "$<get><filter/><filter/></get>",
            Error("protocol", "bad-element", "'filter' is there more than once", BadElement("filter"))},
        Row{"GetConfigWithoutSource", "$<get-config/>",
            Error("protocol", "missing-element", "&lt;get-config&gt; needs 'source'", BadElement("source"))},
        Row{"GetConfigEmptySource", "$<get-config><source/></get-config>",
            Error("protocol", "missing-element", "'source' is empty", BadElement("source"))},
        Row{"GetConfigCandidate", "$<get-config><source><candidate/></source></get-config>",
            Error("protocol", "unknown-element", "'candidate' is not supported as source", BadElement("candidate"))},
        Row{"XPathFilter", "$<get><filter type=\"xpath\" select=\"/\"/></get>",
            Error("protocol", "bad-attribute", "filters of type 'xpath' are not supported, only 'subtree'",
                  "<bad-attribute>type</bad-attribute>" + BadElement("filter"))},
        Row{"EditWithoutTarget", "$<edit-config><config/></edit-config>",
            Error("protocol", "missing-element", "&lt;edit-config&gt; needs 'target'", BadElement("target"))},
        Row{"EditStartup", "$<edit-config><target><startup/></target><config/></edit-config>",
            Error("protocol", "unknown-element", "'startup' is not supported as target", BadElement("startup"))},
        Row{"EditWithoutConfig", "$" + kEdit + "</edit-config>",
            Error("protocol", "missing-element", "&lt;edit-config&gt; needs 'config'", BadElement("config"))},
        Row{"EditFromUrl", "$" + kEdit + "<url>file:///x</url></edit-config>",
            Error("protocol", "unknown-element", "&lt;edit-config&gt; has no parameter 'url'", BadElement("url"))},
        Row{"EditDefaultOperation",
            "$" + kEdit + "<default-operation>delete</default-operation><config/></edit-config>",
            Error("protocol", "invalid-value", "'delete' is not a value of 'default-operation'",
                  BadElement("default-operation"))},
        Row{"EditTestOption", "$" + kEdit + "<test-option>never</test-option><config/></edit-config>",
            Error("protocol", "invalid-value", "'never' is not a value of 'test-option'", BadElement("test-option"))},
        Row{"EditErrorOption", "$" + kEdit + "<error-option>panic</error-option><config/></edit-config>",
            Error("protocol", "invalid-value", "'panic' is not a value of 'error-option'", BadElement("error-option"))},
        Row{"EditOfNothing", "$" + kEdit + "<config/></edit-config>", "<ok/>"},
        Row{"LockCandidate", "$<lock><target><candidate/></target></lock>",
            Error("protocol", "unknown-element", "'candidate' is not supported as target", BadElement("candidate"))},
        Row{"UnlockWithoutLock", "$<unlock><target><running/></target></unlock>",
            Error("protocol", "operation-failed", "this session holds no lock on running")},
        Row{"KillWithoutSession", "$<kill-session/>",
            Error("protocol", "missing-element", "&lt;kill-session&gt; needs 'session-id'", BadElement("session-id"))},
        Row{"KillTextInsteadOfNumber", "$<kill-session><session-id>x</session-id></kill-session>",
            Error("protocol", "invalid-value", "'x' is not a value of 'session-id'", BadElement("session-id"))},
        Row{"KillUnknownSession", "$<kill-session><session-id>999999</session-id></kill-session>",
            Error("protocol", "invalid-value", "'999999' is not a value of 'session-id'", BadElement("session-id"))},
        Row{"SchemaOfNoModule",
            "$<get-schema xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"><identifier>x</identifier>"
            "</get-schema>",
            Error("protocol", "invalid-value", "'x' is not a value of 'identifier'", BadElement("identifier"))},
        Row{"SchemaOfAnotherVersion",
            "$<get-schema xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"><identifier>cdb-monitor"
            "</identifier><version>1999-01-01</version></get-schema>",
            Error("protocol", "invalid-value", "'1999-01-01' is not a value of 'version'", BadElement("version"))},
        Row{"SchemaInAnotherFormat",
            "$<get-schema xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"><identifier>cdb-monitor"
            "</identifier><format>yin</format></get-schema>",
            Error("protocol", "invalid-value", "'yin' is not a value of 'format'", BadElement("format"))},
        Row{"TextInRpc", "$x" + kValidate, Error("protocol", "bad-element", kOnlyElements, BadElement("rpc"))},
        Row{"TextInOperation", "$<validate>x<source><running/></source></validate>",
            Error("protocol", "bad-element", kOnlyElements, BadElement("validate"))},
        Row{"TextInSource", "$<validate><source>x<running/></source></validate>",
            Error("protocol", "bad-element", kOnlyElements, BadElement("source"))},
        Row{"TextInDatastore", "$<validate><source><running>x</running></source></validate>",
            Error("protocol", "bad-element", kOnlyElements, BadElement("running"))},
        Row{"ElementInDatastore", "$<validate><source><running><x/></running></source></validate>",
            Error("protocol", "unknown-element", "&lt;running&gt; holds no elements", BadElement("x"))},
        Row{"ElementInTextParameter",
            "$" + kEdit + "<default-operation>merge<x/></default-operation><config/></edit-config>",
            Error("protocol", "unknown-element", "&lt;default-operation&gt; holds no elements", BadElement("x"))},
        Row{"AttributeOfOperation", "$<validate x=\"1\"><source><running/></source></validate>",
            UnexpectedAttribute("x", "validate")},
        Row{"AttributeOfGet", "$<get x=\"1\"/>", UnexpectedAttribute("x", "get")},
        Row{"AttributeOfGetConfig", "$<get-config x=\"1\"><source><running/></source></get-config>",
            UnexpectedAttribute("x", "get-config")},
        Row{"AttributeOfClose", "$<close-session x=\"1\"/>", UnexpectedAttribute("x", "close-session")},
        Row{"AttributeOfLock", "$<lock x=\"1\"><target><running/></target></lock>", UnexpectedAttribute("x", "lock")},
        Row{"AttributeOfUnlock", "$<unlock x=\"1\"><target><running/></target></unlock>",
            UnexpectedAttribute("x", "unlock")},
        Row{"AttributeOfKill", "$<kill-session x=\"1\"><session-id>1</session-id></kill-session>",
            UnexpectedAttribute("x", "kill-session")},
        Row{"AttributeOfGetSchema",
            "$<get-schema x=\"1\" xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"><identifier>cdb-monitor"
            "</identifier></get-schema>",
            UnexpectedAttribute("x", "get-schema")},
        Row{"AttributeOfSource", "$<validate><source x=\"1\"><running/></source></validate>",
            UnexpectedAttribute("x", "source")},
        Row{"AttributeOfDatastore", "$<validate><source><running x=\"1\"/></source></validate>",
            UnexpectedAttribute("x", "running")},
        Row{"AttributeOfTextParameter",
            "$" + kEdit + "<default-operation x=\"1\">merge</default-operation><config/></edit-config>",
            UnexpectedAttribute("x", "default-operation")},
        Row{"AttributeOfComment",
            "$" + kEdit + "<comment xmlns=\"urn:ip-spoofing:cdb-monitor\" x=\"1\">c</comment><config/></edit-config>",
            UnexpectedAttribute("x", "comment")},
        Row{"OperationOfConfig", "$" + kEdit + "<config" + kNcPrefix + " nc:operation=\"replace\"/></edit-config>",
            UnexpectedAttribute("operation", "config")},
        Row{"OperationOfEditConfig",
            "$<edit-config" + kNcPrefix + " nc:operation=\"delete\"><target><running/></target><config/></edit-config>",
            UnexpectedAttribute("operation", "edit-config")},
        Row{"LanguageOfOperation", "$<get xml:lang=\"en\"/>", UnexpectedAttribute("lang", "get")},
        Row{"AttributeOfConfigToValidate", "$<validate><source><config x=\"1\"/></source></validate>",
            UnexpectedAttribute("x", "config")},
        Row{"AttributeOfFilter", "$<get><filter type=\"subtree\" x=\"1\"/></get>", UnexpectedAttribute("x", "filter")},
        Row{"ForeignTypeOfFilter", "$<get><filter xmlns:f=\"urn:f\" f:type=\"subtree\"/></get>",
            UnexpectedAttribute("type", "filter")},
        Row{"SelectOfSubtreeFilter", "$<get><filter type=\"subtree\" select=\"/x\"/></get>",
            UnexpectedAttribute("select", "filter")},
        Row{"SecondTypeOfFilter", "$<get><filter" + kNcPrefix + " type=\"subtree\" nc:type=\"xpath\"/></get>",
            BadAttributeValue("filters of type 'xpath' are not supported, only 'subtree'", "type", "filter")},
        Row{"TypeOfFilterOfNetconf",
            "$<get-config><source><running/></source><filter" + kNcPrefix + " nc:type=\"subtree\"/></get-config>",
            "<data></data>"},
        Row{"BadOperation",
            "$" + kEdit + "<config><config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"" + kNcPrefix +
                " nc:operation=\"melt\"/></config></edit-config>",
            "<rpc-error><error-type>application</error-type><error-tag>bad-attribute</error-tag><error-severity>error"
            "</error-severity><error-message xml:lang=\"en\">'melt' is not an operation"
            "</error-message><error-info><bad-attribute>operation</bad-attribute><bad-element>config</bad-element>"
            "</error-info></rpc-error>"},
        Row{"ValidateRunning", "$<validate><source><running/></source></validate>", "<ok/>"},
        Row{"ValidateGoodConfig",
            "$<validate><source><config>" + Interfaces({"eth0"}) + "</config></source></validate>", "<ok/>"}),
    [](const auto& row) { return row.param.name; });

TEST_F(Answers, RepeatTheAttributesOfTheRequest) {
  NetconfClient client = server->Connect();
  ASSERT_TRUE(client.raw()
                  .Send("<n:rpc n:x=\"1\" message-id=\"&quot;a&lt;\" xmlns:e=\"urn:e\" e:user=\"u\" xmlns:n"
                        "=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><n:validate><n:source><n:running/></n:source>"
                        "</n:validate></n:rpc>",
                        kLimit)
                  .ok());
  const auto reply = client.raw().Receive(kLimit);
  ASSERT_TRUE(reply.ok());
  EXPECT_EQ(reply.value(),
            "<rpc-reply xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns:n=\"urn:ietf:params:xml:ns:netconf:"
            "base:1.0\" n:x=\"1\" message-id=\"&quot;a&lt;\" xmlns:e=\"urn:e\" e:user=\"u\"><ok/></rpc-reply>");
}

TEST_F(Answers, ComeInTheOrderOfPipelinedRequests) {
  NetconfClient client = server->Connect();
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(client.raw()
                    .Send("<rpc message-id=\"" + std::to_string(i) + "\" " + kNc +
                              "><validate><source><running/></source></validate></rpc>",
                          kLimit)
                    .ok());
  for (int i = 0; i < 50; ++i) {
    const auto reply = client.raw().Receive(kLimit);
    ASSERT_TRUE(reply.ok());
    EXPECT_EQ(reply.value(), "<rpc-reply " + kNc + " message-id=\"" + std::to_string(i) + "\"><ok/></rpc-reply>");
  }
}

/// The answer to an interface called a/b.
const std::string kBadName =
    "<rpc-error><error-type>application</error-type><error-tag>invalid-value</error-tag><error-severity>error"
    "</error-severity><error-path xmlns:ais=\"urn:ip-spoofing:anti-ip-spoofing\">/ais:config/ais:anti-ip-spoofing"
    "/ais:interface/ais:interface-name</error-path><error-message xml:lang=\"en\">an interface name has no blank, "
    "quote, brace, bracket, slash, backslash or percent sign</error-message></rpc-error>";

TEST_F(Answers, AValidateOfABadConfigTellsWhyAndChangesNothing) {
  NetconfClient client = server->Connect();
  EXPECT_EQ(
      Inside(client.Rpc("<validate><source><config>" + Interfaces({"eth0", "a/b"}) + "</config></source></validate>")),
      kBadName);
  EXPECT_EQ(client.GetConfig(), "");
}

TEST_F(Answers, AnEditWithAnErrorLeavesNothingOfWhatWasRightInIt) {
  NetconfClient client = server->Connect();
  for (const std::string option : {"", "stop-on-error", "rollback-on-error"}) {
    const std::string element = option.empty() ? "" : "<error-option>" + option + "</error-option>";
    EXPECT_EQ(Inside(client.EditConfig(Interfaces({"eth0", "a/b"}), element)), kBadName) << option;
    EXPECT_EQ(client.GetConfig(), "") << option;
  }
}

TEST_F(Answers, ATestOnlyEditChangesNothing) {
  NetconfClient client = server->Connect();
  const std::string test_only = "<test-option>test-only</test-option>";
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth0"}), test_only)));
  EXPECT_EQ(Inside(client.EditConfig(Interfaces({"a/b"}), test_only)), kBadName);
  EXPECT_EQ(client.GetConfig(), "");
}

TEST_F(Answers, TheHelloNamesWhatWorks) {
  NetconfClient client = server->Connect();
  const std::string library =
      client.Get("<yang-library xmlns=\"urn:ietf:params:xml:ns:yang:ietf-yang-library\"><content-id/></yang-library>");
  const std::string content_id = Between(library, "<content-id>", "</content-id>");
  ASSERT_FALSE(content_id.empty()) << library;
  const std::string base = "urn:ietf:params:netconf:";
  const std::vector<std::string> expected{
      base + "base:1.0",
      base + "base:1.1",
      base + "capability:writable-running:1.0",
      base + "capability:rollback-on-error:1.0",
      base + "capability:validate:1.1",
      base + "capability:yang-library:1.0?revision=2019-01-04&module-set-id=" + content_id,
      base + "capability:yang-library:1.1?revision=2019-01-04&content-id=" + content_id,
      "urn:ietf:params:xml:ns:netconf:base:1.0?module=ietf-netconf&revision=2011-06-01&features=writable-running,"
      "rollback-on-error,validate",
      "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring?module=ietf-netconf-monitoring&revision=2010-10-04"};
  // The library's own modules come with it.
  std::vector<std::string> capabilities;
  for (const std::string& one : client.raw().capabilities())
    if (one.find("?module=yang&") == std::string::npos) capabilities.push_back(one);
  EXPECT_EQ(capabilities, expected);
}

// RFC 7895: what a client that knows only yang-library 1.0 reads after the hello.
TEST_F(Answers, HaveTheModulesOfYangLibrary10) {
  NetconfClient client = server->Connect();
  const std::string ns = " xmlns=\"urn:ietf:params:xml:ns:yang:ietf-yang-library\"";
  const auto modules = [&](const std::string& filter) {
    return client.Get("<modules-state" + ns + ">" + filter + "</modules-state>");
  };
  const std::string set = Between(modules("<module-set-id/>"), "<module-set-id>", "</module-set-id>");
  EXPECT_THAT(client.raw().capabilities(), testing::Contains(testing::EndsWith("&module-set-id=" + set)));
  EXPECT_EQ(modules("<module><name>anti-ip-spoofing</name></module>"),
            "<modules-state" + ns +
                "><module><name>anti-ip-spoofing</name><revision>2026-11-21</revision><namespace>urn:ip-spoofing:"
                "anti-ip-spoofing</namespace><conformance-type>implement</conformance-type></module></modules-state>");
}

TEST(Locks, KeepOthersOutUntilTheSessionEnds) {
  CdbdProcess server;
  server.Start();
  NetconfClient other = server.Connect();
  const std::string lock = "<lock><target><running/></target></lock>";
  {
    NetconfClient owner = server.Connect();
    const std::string id = owner.raw().session_id();
    EXPECT_TRUE(IsOk(owner.Rpc(lock)));
    const std::string locked = "running is locked by session " + id;
    const std::string denied = Error("protocol", "lock-denied", locked, "<session-id>" + id + "</session-id>");
    EXPECT_EQ(Inside(owner.Rpc(lock)), denied);
    EXPECT_EQ(Inside(other.Rpc(lock)), denied);
    EXPECT_EQ(Inside(other.EditConfig(Interfaces({"eth0"}))), Error("protocol", "in-use", locked));
    EXPECT_EQ(Inside(other.Rpc("<unlock><target><running/></target></unlock>")),
              Error("protocol", "operation-failed", "this session holds no lock on running; session " + id + " does"));
    EXPECT_TRUE(IsOk(owner.EditConfig(Interfaces({"eth1"}))));
    EXPECT_EQ(other.Get("<netconf-state xmlns=\"\"><datastores><datastore><locks><global-lock><locked-by-session/>"
                        "</global-lock></locks></datastore></datastores></netconf-state>"),
              "<netconf-state xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"><datastores><datastore>"
              "<name>running</name><locks><global-lock><locked-by-session>" +
                  id + "</locked-by-session></global-lock></locks></datastore></datastores></netconf-state>");
  }
  EXPECT_TRUE(Eventually([&] { return IsOk(other.Rpc(lock)); }, kLimit)) << "the lock outlived its session";
  EXPECT_TRUE(IsOk(other.Rpc("<unlock><target><running/></target></unlock>")));
  EXPECT_TRUE(IsOk(other.EditConfig(Interfaces({"eth0"}))));
  EXPECT_EQ(other.GetConfig(), Interfaces({"eth0", "eth1"}));
}

TEST(Sessions, EndWithCloseSession) {
  CdbdProcess server;
  server.Start();
  NetconfClient client = server.Connect();
  EXPECT_TRUE(IsOk(client.Rpc("<close-session/>")));
  const auto end = client.raw().Receive(kLimit);
  ASSERT_FALSE(end.ok());
  EXPECT_EQ(end.error().Text(), "receive: the peer closed the connection");
}

TEST(Sessions, AreKilledByOthersButNotByThemselves) {
  CdbdProcess server;
  server.Start();
  NetconfClient victim = server.Connect();
  NetconfClient killer = server.Connect();
  const auto kill = [&](const std::string& id) {
    return killer.Rpc("<kill-session><session-id>" + id + "</session-id></kill-session>");
  };
  EXPECT_TRUE(IsOk(victim.Rpc("<lock><target><running/></target></lock>")));
  const std::string own = killer.raw().session_id();
  EXPECT_EQ(Inside(kill(own)), Error("protocol", "invalid-value", "'" + own + "' is not a value of 'session-id'",
                                     BadElement("session-id")));
  EXPECT_TRUE(IsOk(kill(victim.raw().session_id())));
  EXPECT_FALSE(victim.raw().Receive(kLimit).ok());
  EXPECT_TRUE(IsOk(killer.Rpc("<lock><target><running/></target></lock>")));
}

TEST(Sessions, GetSchemaGivesEveryModuleOfTheLibrary) {
  CdbdProcess server;
  server.Start();
  NetconfClient client = server.Connect();
  const std::string list =
      client.Get("<netconf-state xmlns=\"\"><schemas><schema><identifier/></schema></schemas></netconf-state>");
  size_t modules = 0;
  const std::string open = "<identifier>";
  for (size_t at = 0; (at = list.find(open, at)) != std::string::npos; ++modules) {
    at += open.size();
    const std::string name = list.substr(at, list.find('<', at) - at);
    const std::string reply =
        client.Rpc("<get-schema xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"><identifier>" + name +
                   "</identifier><format>yang</format></get-schema>");
    EXPECT_THAT(reply, testing::HasSubstr("module " + name + " {"));
  }
  EXPECT_GT(modules, 8U);
  const std::string library = client.Get("<yang-library xmlns=\"urn:ietf:params:xml:ns:yang:ietf-yang-library\"/>");
  EXPECT_THAT(library, testing::HasSubstr("<name>anti-ip-spoofing</name><revision>2026-11-21</revision>"));
  EXPECT_THAT(client.Get(), testing::Not(testing::HasSubstr("file:"))) << "the server's own paths are told";
  EXPECT_THAT(client.raw().capabilities(),
              testing::Contains(testing::EndsWith(
                  "content-id=" + library.substr(library.find("<content-id>") + 12,
                                                 library.find("</content-id>") - library.find("<content-id>") - 12))));
}

}  // namespace
}  // namespace cdbd::test
