#include "show_commits.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

std::string Shown(const std::string& content) {
  const auto document =
      netconf::XmlDocument::Parse("<data xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + content + "</data>");
  return document.ok() ? CommitsText(document.value()->root()) : document.error().Text();
}

std::string Commit(int number, const std::string& counts, const std::string& changes) {
  return "<commit><transaction>" + std::to_string(number) +
         "</transaction><time>2026-11-21T08:00:00Z</time><user>admin</user><session>4</session>" + counts + changes +
         "</commit>";
}

TEST(ShowCommits, TellsWhoDidWhatAndWhen) {
  const std::string many = "<created>1</created><modified>0</modified><deleted>2</deleted>";
  const std::string one = "<created>0</created><modified>1</modified><deleted>0</deleted>";
  const std::string change = "<change><path>/a:b{x}</path><operation>created</operation></change>";
  EXPECT_EQ(Shown("<commits xmlns=\"urn:ip-spoofing:cdb-monitor\">" + Commit(12, many, change) +
                  Commit(11, one, change) + Commit(10, one, "") + "</commits>"),
            "COMMIT  TIME                  USER   SESSION  CREATED  MODIFIED  DELETED  WHAT\n"
            "12      2026-11-21T08:00:00Z  admin  4        1        0         2        created /a:b{x} and 2 more\n"
            "11      2026-11-21T08:00:00Z  admin  4        0        1         0        created /a:b{x}\n"
            "10      2026-11-21T08:00:00Z  admin  4        0        1         0\n");
}

TEST(ShowCommits, SaysWhenThereWasNone) { EXPECT_EQ(Shown(""), "There was no commit yet\n"); }

}  // namespace
}  // namespace cli
