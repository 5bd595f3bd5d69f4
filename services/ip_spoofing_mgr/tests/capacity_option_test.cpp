// Where the capacity comes from when no option names it.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "capacity.h"
#include "temp_dir/temp_dir.h"

namespace mgr {
namespace {

/// The capacity of an element with this description; 0 if it is refused.
size_t CapacityOf(const std::string& description) {
  const ::test::TempDir folder;
  const std::string file = folder.path() + "/element.json";
  std::ofstream{file} << description;
  ::setenv("IP_SPOOFING_ELEMENT_FILE", file.c_str(), 1);
  const auto capacity = ElementCapacity(4'000'000);
  ::unsetenv("IP_SPOOFING_ELEMENT_FILE");
  return capacity ? capacity.value() : 0;
}

std::string Resources(const std::string& records) {
  return R"({"filter-clients": {"ip_spoofing": [)" + records + "]}}";
}

TEST(ElementCapacity, IsTheDefaultWithoutAnything) { EXPECT_EQ(CapacityOf("{}"), 24'576U); }

TEST(ElementCapacity, AddsUpTheResourcesForSources) {
  EXPECT_EQ(CapacityOf(Resources(R"({"stage": 2, "kind": 2, "count": 100}, {"stage": 2, "kind": 2, "count": 11},
                                    {"stage": 1, "kind": 2, "count": 5}, {"stage": 2, "kind": 3, "count": 5})")),
            111U);
}

TEST(ElementCapacity, OfTheIpManagerIsFixed) {
  EXPECT_EQ(CapacityOf(R"({"ip-manager-installs-filters": true, "filter-clients": {}})"), 24'576U);
}

TEST(ElementCapacity, OutOfRangeOrUnreadableIsRefused) {
  EXPECT_EQ(CapacityOf(Resources("")), 0U);
  EXPECT_EQ(CapacityOf(Resources(R"({"stage": 2, "kind": 2, "count": 4000001})")), 0U);
  EXPECT_EQ(CapacityOf("{"), 0U);
}

}  // namespace
}  // namespace mgr
