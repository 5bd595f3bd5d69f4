#include "show_subscribers.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

std::string Shown(const std::string& database) {
  const auto document =
      netconf::XmlDocument::Parse("<data xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + database + "</data>");
  return document.ok() ? SubscribersText(document.value()->root()) : document.error().Text();
}

TEST(ShowSubscribers, TellsWhoHearsOfWhatAndHowFarTheyAre) {
  EXPECT_EQ(Shown("<database xmlns=\"urn:ip-spoofing:cdb-monitor\"><transactions><last>12</last>"
                  "<delivering>12</delivering><delivering-since>2026-11-21T08:00:00Z</delivering-since>"
                  "<waiting>2</waiting></transactions>"
                  "<subscriber><id>3</id><name>ip-spoofing-app</name><process>77</process><state>delivering</state>"
                  "<since>2026-11-21T08:00:00Z</since><last-transaction>11</last-transaction>"
                  "<subscription><point>1</point><path>/a:b/c</path><priority>0</priority></subscription>"
                  "<subscription><point>2</point><path>/a:b/c/d</path><priority>1</priority></subscription>"
                  "</subscriber></database>"),
            "Last commit: 12; subscribers are being told of 12 since 2026-11-21T08:00:00Z; edits waiting: 2\n"
            "PROGRAM          PROCESS  STATE       SINCE                 LAST COMMIT  TOLD OF\n"
            "ip-spoofing-app  77       delivering  2026-11-21T08:00:00Z  11           /a:b/c, /a:b/c/d\n");
}

TEST(ShowSubscribers, WithNobodyThereOnlyTheHeadingIsLeft) {
  EXPECT_EQ(Shown("<database xmlns=\"urn:ip-spoofing:cdb-monitor\"><transactions><last>0</last><waiting>0</waiting>"
                  "</transactions></database>"),
            "Last commit: 0\n"
            "PROGRAM  PROCESS  STATE  SINCE  LAST COMMIT  TOLD OF\n");
}

TEST(ShowSubscribers, SaysWhenTheDatabaseTellsNothing) {
  EXPECT_EQ(Shown(""), "The element says nothing of its database\n");
}

}  // namespace
}  // namespace cli
