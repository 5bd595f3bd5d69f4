#include "rpc_errors.h"

#include <gmock/gmock.h>

namespace cli {
namespace {

/// What an operator reads of a reply, a line for each error.
std::vector<std::string> Read(const std::string& content) {
  const auto document = netconf::XmlDocument::Parse("<rpc-reply xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" +
                                                    content + "</rpc-reply>");
  EXPECT_TRUE(document.ok()) << document.error().Text();
  std::vector<std::string> lines;
  if (!document.ok()) return lines;
  for (const RpcError& error : RpcErrors(document.value()->root())) {
    lines.push_back((error.warning ? "warning " : "error ") + error.Text());
  }
  return lines;
}

TEST(RpcErrors, AReplyWithOkHasNone) { EXPECT_THAT(Read("<ok/>"), testing::IsEmpty()); }

TEST(RpcErrors, AreReadInOrderWithPathMessageAndSeverity) {
  EXPECT_THAT(Read("<rpc-error><error-type>application</error-type><error-tag>data-missing</error-tag>"
                   "<error-severity>error</error-severity><error-path>/a:b</error-path>"
                   "<error-message xml:lang=\"en\">not &lt;there&gt;</error-message></rpc-error>"
                   "<rpc-error><error-tag>operation-failed</error-tag><error-severity>warning</error-severity>"
                   "<error-message>nobody listens</error-message></rpc-error><ok/>"),
              testing::ElementsAre("error /a:b: not <there>", "warning nobody listens"));
}

TEST(RpcErrors, TheTagStandsForAMissingMessage) {
  EXPECT_THAT(Read("<rpc-error><error-tag>in-use</error-tag><error-severity>error</error-severity></rpc-error>"),
              testing::ElementsAre("error in-use"));
}

}  // namespace
}  // namespace cli
