#include "filter_manager.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "common/paths.h"
#include "element.h"
#include "temp_dir/temp_dir.h"

bool operator==(const FmClientResource& a, const FmClientResource& b) {
  return a.client == b.client && a.stage == b.stage && a.kind == b.kind && a.count == b.count;
}

namespace {

using testing::ElementsAre;
namespace fs = std::filesystem;

class FilterManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv(common::kStateDirVariable, folder_.c_str(), 1);
    ::unsetenv("IP_SPOOFING_ELEMENT_FILE");
  }
  void TearDown() override {
    ::unsetenv(common::kStateDirVariable);
    ::unsetenv("IP_SPOOFING_ELEMENT_FILE");
  }
  void Write(const std::string& name, const std::string& text) const { std::ofstream{folder_ / name} << text; }
  static bool Installs() {
    fm_slot_t slot{};
    EXPECT_EQ(fm_local_slot(&slot), 0);
    bool answer = false;
    EXPECT_EQ(fm_scalar_card_ip_mgr_install_dnx_filters(&slot, &answer), 0);
    return answer;
  }
  static std::vector<FmClientResource> Resources(const std::string& client = "ip_spoofing") {
    return FilterManager::GetClientResourcesInformation(client);
  }
  const test::TempDir directory_;
  const fs::path folder_ = directory_.path();
};

/// First in the file: the library keeps its state for the life of the process.
TEST_F(FilterManagerTest, BeforeInitEveryCallFails) {
  fm_slot_t slot{};
  bool answer = true;
  EXPECT_EQ(fm_local_slot(&slot), -1);
  EXPECT_EQ(fm_scalar_card_ip_mgr_install_dnx_filters(&slot, &answer), -1);
  EXPECT_TRUE(answer) << "not touched";
  EXPECT_THAT(Resources(), ElementsAre());
}

TEST_F(FilterManagerTest, WithoutAFileThereIsOneRecordAndNoInstaller) {
  ASSERT_EQ(fm_init(), 0);
  EXPECT_FALSE(Installs());
  EXPECT_THAT(Resources(), ElementsAre(FmClientResource{0, 2, 2, 24576}));
  EXPECT_THAT(Resources("another"), ElementsAre());
}

TEST_F(FilterManagerTest, TheStateDirectorysFileIsReadAgainByEveryInit) {
  Write("element.json", R"({"ip-manager-installs-filters": true})");
  ASSERT_EQ(fm_init(), 0);
  EXPECT_TRUE(Installs());
  EXPECT_THAT(Resources(), ElementsAre(FmClientResource{0, 2, 2, 24576})) << "left out: the default";
  Write("element.json", R"({"card": 3, "slot": 7, "filter-clients": {"ip_spoofing": [
      {"client": 5, "stage": 2, "kind": 2, "count": 100}, {"stage": 1, "kind": 2, "count": 4294967295}], "acl": []}})");
  ASSERT_EQ(fm_init(), 0);
  EXPECT_FALSE(Installs());
  EXPECT_THAT(Resources(), ElementsAre(FmClientResource{5, 2, 2, 100}, FmClientResource{0, 1, 2, 4294967295}));
  EXPECT_THAT(Resources("acl"), ElementsAre());
  fm_slot_t slot{};
  ASSERT_EQ(fm_local_slot(&slot), 0);
  EXPECT_EQ(slot.card, 3u);
  EXPECT_EQ(slot.slot, 7u);
}

TEST_F(FilterManagerTest, TheNamedFileComesFirst) {
  Write("element.json", R"({"ip-manager-installs-filters": true})");
  Write("named.json", R"({"filter-clients": {}})");
  ::setenv("IP_SPOOFING_ELEMENT_FILE", (folder_ / "named.json").c_str(), 1);
  ASSERT_EQ(fm_init(), 0);
  EXPECT_FALSE(Installs());
  EXPECT_THAT(Resources(), ElementsAre());
}

TEST_F(FilterManagerTest, ANamedFileThatIsNotThereFails) {
  ::setenv("IP_SPOOFING_ELEMENT_FILE", (folder_ / "none.json").c_str(), 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(fm_init(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "filter manager: open " + (folder_ / "none.json").string() + ": No such file or directory\n");
}

TEST_F(FilterManagerTest, AFileThatIsNotUnderstoodFailsWithOneLine) {
  Write("element.json", R"({"card": -1})");
  testing::internal::CaptureStderr();
  EXPECT_EQ(fm_init(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "filter manager: " + (folder_ / "element.json").string() +
                                                        ": /card is not a number from 0 to 4294967295\n");
}

TEST_F(FilterManagerTest, ADirectoryInTheFilesPlaceFails) {
  fs::create_directory(folder_ / "element.json");
  testing::internal::CaptureStderr();
  EXPECT_EQ(fm_init(), -1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("element.json"));
}

TEST_F(FilterManagerTest, MissingArgumentsFail) {
  ASSERT_EQ(fm_init(), 0);
  fm_slot_t slot{};
  bool answer = false;
  EXPECT_EQ(fm_local_slot(nullptr), -1);
  EXPECT_EQ(fm_scalar_card_ip_mgr_install_dnx_filters(nullptr, &answer), -1);
  EXPECT_EQ(fm_scalar_card_ip_mgr_install_dnx_filters(&slot, nullptr), -1);
}

TEST_F(FilterManagerTest, ThePackagedFileHoldsTheDefaults) {
  ::setenv("IP_SPOOFING_ELEMENT_FILE", PACKAGED_ELEMENT, 1);
  const auto packaged = fm_impl::ReadElement();
  ASSERT_TRUE(packaged) << packaged.error().Text();
  const fm_impl::Element defaults;
  EXPECT_EQ(packaged.value().local.card, defaults.local.card);
  EXPECT_EQ(packaged.value().local.slot, defaults.local.slot);
  EXPECT_EQ(packaged.value().ip_manager_installs_filters, defaults.ip_manager_installs_filters);
  EXPECT_EQ(packaged.value().clients, defaults.clients);
}

struct BadCase {
  std::string name;
  std::string text;
  std::string error;
};
class BadElement : public testing::TestWithParam<BadCase> {};

TEST_P(BadElement, SaysWhatIsWrong) {
  const auto element = fm_impl::ParseElement(GetParam().text);
  ASSERT_FALSE(element);
  EXPECT_EQ(element.error().Text(), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, BadElement,
    testing::Values(BadCase{"Empty", "", "not JSON at byte 1"}, BadCase{"Cut", R"({"card": 1)", "not JSON at byte 11"},
                    BadCase{"NoObject", "[]", "the whole is not an object"},
                    BadCase{"UnknownMember", R"({"cards": 1})", "unknown member /cards"},
                    BadCase{"TextForNumber", R"({"slot": "1"})", "/slot is not a number from 0 to 4294967295"},
                    BadCase{"Fraction", R"({"slot": 1.5})", "/slot is not a number from 0 to 4294967295"},
                    BadCase{"TooLarge", R"({"slot": 4294967296})", "/slot is not a number from 0 to 4294967295"},
                    BadCase{"Flag", R"({"ip-manager-installs-filters": 1})",
                            "/ip-manager-installs-filters is neither true nor false"},
                    BadCase{"Clients", R"({"filter-clients": []})", "/filter-clients is not an object"},
                    BadCase{"Client", R"({"filter-clients": {"a": {}}})", "/filter-clients/a is not an array"},
                    BadCase{"Record", R"({"filter-clients": {"a": [7]}})", "/filter-clients/a/0 is not an object"},
                    BadCase{"RecordMember",
                            R"({"filter-clients": {"a": [{"stage": 2, "kind": 2, "count": 1}, {"size": 1}]}})",
                            "unknown member /filter-clients/a/1/size"},
                    BadCase{"RecordWithoutCount", R"({"filter-clients": {"a": [{"stage": 2, "kind": 2}]}})",
                            "/filter-clients/a/0/count is missing"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
