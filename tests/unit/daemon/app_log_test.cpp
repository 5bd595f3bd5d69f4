// Log lines, faults, and the set-up of the middleware's log and trace systems.
#include "app/app_log.h"

#include "daemon_fixture.h"
#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

struct SetUpCase {
  std::string name;
  bool with_handle;
  std::vector<std::string> failing_calls;
  Lines trace;
};

class AppLogSetUp : public DaemonTest, public testing::WithParamInterface<SetUpCase> {};

TEST_P(AppLogSetUp, CallsTheMiddlewareInThisOrder) {
  for (const std::string& call : GetParam().failing_calls) fakes::TheScript().Return(call, -1);
  {
    const IpSpoofAppLog log(GetParam().with_handle ? fakes::TheHandle() : nullptr);
    IpSpoofAppLog::Log("plain %d %s", 1, "one");
    IpSpoofAppLog::LogDebug("debug %d %s", 2, "two");
  }
  IpSpoofAppLog::Log("after its end");
  IpSpoofAppLog::LogDebug("after its end");
  EXPECT_EQ(Taken(), GetParam().trace);
}

INSTANTIATE_TEST_SUITE_P(
    All, AppLogSetUp,
    testing::Values(
        SetUpCase{"BothWork",
                  true,
                  {},
                  {"qmmw_log_init 38 23 IP_SPOOFING", "qmmw_trace_init ip-spoofing-app", "qmmw_vlog plain 1 one",
                   "qmmw_vlog_debug debug 2 two", "qmmw_log_finish"}},
        SetUpCase{"NoHandleSetsUpNothing", false, {}, {}},
        SetUpCase{"NoLog",
                  true,
                  {"qmmw_log_init"},
                  {"qmmw_log_init 38 23 IP_SPOOFING", "fault 0 IpSpoofAppLog: IpSpoofAppLog could not init log system",
                   "qmmw_trace_init ip-spoofing-app"}},
        SetUpCase{"NoTrace",
                  true,
                  {"qmmw_trace_init"},
                  {"qmmw_log_init 38 23 IP_SPOOFING", "qmmw_trace_init ip-spoofing-app",
                   "fault 0 IpSpoofAppLog: IpSpoofAppLog could not init trace system", "qmmw_vlog plain 1 one",
                   "qmmw_vlog_debug debug 2 two", "qmmw_log_finish"}},
        SetUpCase{
            "Neither",
            true,
            {"qmmw_log_init", "qmmw_trace_init"},
            {"qmmw_log_init 38 23 IP_SPOOFING", "fault 0 IpSpoofAppLog: IpSpoofAppLog could not init log system",
             "qmmw_trace_init ip-spoofing-app", "fault 0 IpSpoofAppLog: IpSpoofAppLog could not init trace system"}}),
    [](const auto& row) { return row.param.name; });

using AppLogObject = DaemonTest;

TEST_F(AppLogObject, WithoutAHandleDropsWhatAnEarlierOneSetUp) {
  const IpSpoofAppLog first(fakes::TheHandle());
  const IpSpoofAppLog second(nullptr);
  Taken();
  IpSpoofAppLog::Log("nowhere");
  EXPECT_EQ(Taken(), Lines{});
}

using LogLevels = DaemonTest;

TEST_F(LogLevels, EachLineCarriesItsPlaceAndLevel) {
  const int line = __LINE__ + 1;
  LOG_DETAIL_LINE(fakes::TheCategory(), "detail %d", 1);
  LOG_INFO_LINE(fakes::TheCategory(), "info %s", "two");
  LOG_ERROR_LINE(fakes::TheCategory(), "error");
  const auto& lines = fakes::TheZlog().lines;
  ASSERT_EQ(lines.size(), 3U);
  const int levels[] = {10, 11, 12};
  const std::string texts[] = {"detail 1", "info two", "error"};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(lines[static_cast<size_t>(i)].category, fakes::TheCategory());
    EXPECT_EQ(lines[static_cast<size_t>(i)].file, __FILE__);
    EXPECT_EQ(lines[static_cast<size_t>(i)].function, "TestBody");
    EXPECT_EQ(lines[static_cast<size_t>(i)].line, line + i);
    EXPECT_EQ(lines[static_cast<size_t>(i)].level, levels[i]);
    EXPECT_EQ(lines[static_cast<size_t>(i)].text, texts[i]);
  }
  EXPECT_EQ(fakes::TheZlog().asked_levels, std::vector<int>{10});
}

TEST_F(LogLevels, DisabledDetailEvaluatesNothing) {
  fakes::TheZlog().detail_enabled = false;
  int evaluated = 0;
  LOG_DETAIL_LINE(fakes::TheCategory(), "detail %d", ++evaluated);
  LOG_INFO_LINE(fakes::TheCategory(), "info %d", ++evaluated);
  LOG_ERROR_LINE(fakes::TheCategory(), "error %d", ++evaluated);
  EXPECT_EQ(evaluated, 2);
  EXPECT_EQ(Taken(), (Lines{"log 11 TestBody: info 1", "log 12 TestBody: error 2"}));
}

// The paths are those of the project, wherever it was built.
TEST_F(LogLevels, LinesAndFaultsNameTheSourceFileTheyComeFrom) {
  ConfDAppMgr& confd = Build({});
  fakes::TheWrapper().Connect(&confd);
  ASSERT_FALSE(fakes::TheZlog().lines.empty());
  EXPECT_EQ(fakes::TheZlog().lines.front().file, "src/app/confd_mgr/connection.cpp");
  fakes::TheWrapper().Disconnect(&confd);
  confd.LoadConfDCfg(false);
  ASSERT_EQ(fakes::TheMiddleware().faults.size(), 1U);
  EXPECT_EQ(fakes::TheMiddleware().faults[0].file, "src/app/confd_mgr/load.cpp");
}

using Faults = DaemonTest;

TEST_F(Faults, NonFatalPrintsNoBacktraceAndGoesOn) {
  const int line = __LINE__ + 1;
  NON_FATAL_FAULT("%s: Unknown subscription id %d", "FindSubscription", 7);
  EXPECT_EQ(Taken(), Lines{"fault 0 TestBody: FindSubscription: Unknown subscription id 7"});
  ASSERT_EQ(fakes::TheMiddleware().faults.size(), 1U);
  EXPECT_EQ(fakes::TheMiddleware().faults[0].file, __FILE__);
  EXPECT_EQ(fakes::TheMiddleware().faults[0].line, line);
}

TEST_F(Faults, FatalPrintsTheBacktraceFirstAndExitsWithOne) {
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        FATAL_FAULT("%s kp is null", "Walk");
      },
      testing::ExitedWithCode(1), testing::MatchesRegex("backtrace\nfault 1 TestBody: Walk kp is null\n"));
}

struct LengthCase {
  size_t written;
  size_t kept;
};

class FaultLength : public DaemonTest, public testing::WithParamInterface<LengthCase> {};

TEST_P(FaultLength, IsCutBehind349Characters) {
  NON_FATAL_FAULT("%s", std::string(GetParam().written, 'x').c_str());
  ASSERT_EQ(fakes::TheMiddleware().faults.size(), 1U);
  EXPECT_EQ(fakes::TheMiddleware().faults[0].message, std::string(GetParam().kept, 'x'));
}

INSTANTIATE_TEST_SUITE_P(All, FaultLength,
                         testing::Values(LengthCase{0, 0}, LengthCase{348, 348}, LengthCase{349, 349},
                                         LengthCase{350, 349}, LengthCase{5000, 349}),
                         [](const auto& row) { return "Of" + std::to_string(row.param.written); });

}  // namespace
}  // namespace ip_spoofing_app
