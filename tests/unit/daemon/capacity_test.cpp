// The hardware's capacity: which queries are made, and what they add up to.
#include "daemon_fixture.h"
#include "utils/ip_spoofing_utils.h"

namespace ip_spoofing_app {
namespace {

const Lines kAllQueries = {"fm_init", "fm_local_slot", "fm_scalar_card_ip_mgr_install_dnx_filters card 3 slot 7",
                           "GetClientResourcesInformation ip_spoofing"};
const Lines kQueriesUpToTheFlag = {kAllQueries.begin(), kAllQueries.begin() + 3};

struct CapacityCase {
  std::string name;
  bool installed_by_ip_manager;
  int installer_result;
  std::vector<FmClientResource> resources;
  int capacity;
  Lines queries;
};

class Capacity : public DaemonTest, public testing::WithParamInterface<CapacityCase> {};

TEST_P(Capacity, IsWorkedOutFromTheseQueries) {
  fakes::TheTrace().Record({Kind::kFilter, Kind::kLog, Kind::kFault});
  fakes::TheFilters().installed_by_ip_manager = GetParam().installed_by_ip_manager;
  fakes::TheFilters().resources = GetParam().resources;
  fakes::TheScript().Return("fm_scalar_card_ip_mgr_install_dnx_filters", GetParam().installer_result);

  EXPECT_EQ(get_max_ip_spoofing_entries(), GetParam().capacity);
  EXPECT_EQ(Taken(), GetParam().queries);
}

INSTANTIATE_TEST_SUITE_P(
    All, Capacity,
    testing::Values(CapacityCase{"InstallerFlagFixesIt", true, 0, {{0, 2, 2, 5}}, 24576, kQueriesUpToTheFlag},
                    CapacityCase{"InstallerFlagCountsEvenIfTheCallFails", true, -1, {}, 24576, kQueriesUpToTheFlag},
                    CapacityCase{
                        "ResourcesCountEvenIfTheInstallerCallFails", false, -1, {{0, 2, 2, 5}}, 5, kAllQueries},
                    CapacityCase{"NoResources", false, 0, {}, 0, kAllQueries},
                    CapacityCase{"SumsMatchingRecords", false, 0, {{0, 2, 2, 5}, {9, 2, 2, 7}}, 12, kAllQueries},
                    CapacityCase{"SkipsOtherPairs",
                                 false,
                                 0,
                                 {{2, 1, 2, 1}, {2, 2, 1, 10}, {2, 3, 3, 100}, {2, 0, 0, 1000}, {2, 2, 2, 10000}},
                                 10000,
                                 kAllQueries},
                    CapacityCase{"SumsLargeCounts", false, 0, {{0, 2, 2, 70000}, {0, 2, 2, 3}}, 70003, kAllQueries},
                    CapacityCase{"NothingMatches", false, 0, {{2, 2, 3, 8}}, 0, kAllQueries}),
    [](const auto& row) { return row.param.name; });

struct FatalCase {
  std::string name;
  std::string failing_call;
  int failure;
  Lines dump;
};

class CapacityFatal : public DaemonTest, public testing::WithParamInterface<FatalCase> {};

TEST_P(CapacityFatal, EndsTheProcess) {
  fakes::TheTrace().Record({Kind::kFilter, Kind::kLog, Kind::kFault});
  fakes::TheScript().Return(GetParam().failing_call, GetParam().failure);
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        get_max_ip_spoofing_entries();
      },
      testing::ExitedWithCode(1), DiesWith(GetParam().dump));
}

const Lines kNoLibrary = {"fm_init", "backtrace", "fault 1 get_max_ip_spoofing_entries: Failed to initialize fm_lib"};
const Lines kNoLocalSlot = {"fm_init", "fm_local_slot", "backtrace",
                            "fault 1 get_max_ip_spoofing_entries: Failed to initialize fm local slot"};

INSTANTIATE_TEST_SUITE_P(All, CapacityFatal,
                         testing::Values(FatalCase{"LibraryDoesNotStart", "fm_init", -1, kNoLibrary},
                                         FatalCase{"LibraryGivesAnyNumberButZero", "fm_init", 1, kNoLibrary},
                                         FatalCase{"NoLocalSlot", "fm_local_slot", -1, kNoLocalSlot},
                                         FatalCase{"LocalSlotGivesAnyNumberButZero", "fm_local_slot", 1, kNoLocalSlot}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace ip_spoofing_app
