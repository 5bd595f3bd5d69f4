#include "show_commits.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

std::string Shown(const std::string& content) {
  const auto document =
      netconf::XmlDocument::Parse("<data xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + content + "</data>");
  return document.ok() ? CommitsText(document.value()->root()) : document.error().Text();
}

std::string Commit(int number, const std::string& counts, const std::string& changes, const std::string& comment = "") {
  return "<commit><transaction>" + std::to_string(number) +
         "</transaction><time>2026-11-21T08:00:00Z</time><user>admin</user><session>4</session>" +
         (comment.empty() ? "" : "<comment>" + comment + "</comment>") + counts + changes + "</commit>";
}

TEST(ShowCommits, TellsWhoDidWhatAndWhen) {
  const std::string many = "<created>1</created><modified>0</modified><deleted>2</deleted>";
  const std::string one = "<created>0</created><modified>1</modified><deleted>0</deleted>";
  const std::string change = "<change><path>/a:b{x}</path><operation>created</operation></change>";
  EXPECT_EQ(Shown("<commits xmlns=\"urn:ip-spoofing:cdb-monitor\">" + Commit(12, many, change) +
                  Commit(11, one, change, "ticket\n4711") + Commit(10, one, "") + "</commits>"),
            "COMMIT  TIME                  USER   SESSION  CREATED  MODIFIED  DELETED  COMMENT      WHAT\n"
            "12      2026-11-21T08:00:00Z  admin  4        1        0         2                     created /a:b{x}\n"
            "                                                                                       and 2 more\n"
            "11      2026-11-21T08:00:00Z  admin  4        0        1         0        ticket 4711  created /a:b{x}\n"
            "10      2026-11-21T08:00:00Z  admin  4        0        1         0\n");
}

TEST(ShowCommits, TellsTheValuesOfEveryChangeThatIsNamed) {
  const auto leaf = [](const std::string& name, const std::string& operation, const std::string& values) {
    return "<leaf><name>" + name + "</name><operation>" + operation + "</operation>" + values + "</leaf>";
  };
  const std::string changes =
      "<change><path>/a:b{x}</path><operation>modified</operation>" +
      leaf("c", "modified", "<old-value>1</old-value><new-value>2</new-value>") + leaf("d/e", "created", "") +
      leaf("f", "created", "<new-value>a\tb</new-value><cut>new-value</cut>") +
      "<unnamed-leaves>3</unnamed-leaves></change><change><path>/a:b{y}</path><operation>deleted</operation>" +
      leaf("c", "deleted", "<old-value/>") + leaf("d/e", "deleted", "") + "</change>";
  const std::string counts = "<created>0</created><modified>1</modified><deleted>1</deleted>";
  EXPECT_EQ(Shown("<commits xmlns=\"urn:ip-spoofing:cdb-monitor\">" + Commit(1, counts, changes) + "</commits>"),
            "COMMIT  TIME                  USER   SESSION  CREATED  MODIFIED  DELETED  COMMENT  WHAT\n"
            "1       2026-11-21T08:00:00Z  admin  4        0        1         1                 modified /a:b{x}: "
            "c = 2 (was 1), d/e, f = a b..., 3 more leaves\n" +
                std::string(83, ' ') + "deleted /a:b{y}: no c (was ), no d/e\n");
}

TEST(ShowCommits, SaysWhenThereWasNone) { EXPECT_EQ(Shown(""), "There was no commit yet\n"); }

}  // namespace
}  // namespace cli
