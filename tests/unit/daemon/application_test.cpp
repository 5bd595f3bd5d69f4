// The process from its start to its exit status, and the application object.
#include "app/application.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "app/app_main.h"
#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

const Lines kBuilt = {
    "qmmw_init ip-spoofing-app",
    "qmmw_log_init 38 23 IP_SPOOFING",
    "qmmw_trace_init ip-spoofing-app",
    "IpSpoofingPreventionMgrClient",
    "QmConfdInterface false ip-spoofing-app phase 2 flags 0",
    "qmmw_trace_register_category ip-spoofing-app",
    "fm_init",
    "fm_local_slot",
    "fm_scalar_card_ip_mgr_install_dnx_filters card 3 slot 7",
    "GetClientResourcesInformation ip_spoofing",
    "Init 0",
};
const Lines kDestroyed = {"~QmConfdInterface", "~IpSpoofingPreventionMgrClient", "qmmw_log_finish", "qmmw_finish"};

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

std::set<Kind> AllButReads() {
  return {Kind::kRequest, Kind::kLog,          Kind::kFault,   Kind::kMiddleware, Kind::kConfd,
          Kind::kFilter,  Kind::kSubscription, Kind::kSession, Kind::kReply};
}

/// Runs the daemon as a process would, with its standard output on standard error, where death tests read.
[[noreturn]] void RunProcess() {
  fakes::Trace::DumpAtExit();
  dup2(STDERR_FILENO, STDOUT_FILENO);
  std::exit(run_daemon());
}

/// The whole output: what the process wrote, then the trace, nothing else.
testing::Matcher<const std::string&> Writes(const std::string& output, const Lines& trace) {
  std::string text = output;
  for (const std::string& line : trace) text += line + "\n";
  return testing::StrEq(text);
}

struct ProcessCase {
  std::string name;
  std::string failing_call;  ///< empty: none
  int status;
  std::string output;
  Lines trace;
  int failure = -1;  ///< what the failing call gives
};

class Process : public DaemonTest, public testing::WithParamInterface<ProcessCase> {};

TEST_P(Process, RunsFromStartToExit) {
  fakes::TheTrace().Record(AllButReads());
  if (!GetParam().failing_call.empty()) fakes::TheScript().Return(GetParam().failing_call, GetParam().failure);
  EXPECT_EXIT(RunProcess(), testing::ExitedWithCode(GetParam().status), Writes(GetParam().output, GetParam().trace));
}

INSTANTIATE_TEST_SUITE_P(
    All, Process,
    testing::Values(ProcessCase{"LoopEndsNormally", "", 0, "ip-spoofing-app: Leaving...\n",
                                kBuilt + Lines{"Connect", "qmmw_loop_while"} + kDestroyed},
                    ProcessCase{"LoopFailureIsAFaultWithoutTextAndStatusZero", "qmmw_loop_while", 0,
                                "ip-spoofing-app: Leaving...\n",
                                kBuilt + Lines{"Connect", "qmmw_loop_while", "fault 0 main: "} + kDestroyed},
                    ProcessCase{"ManagerOutOfReachEndsItBeforeTheLoop", "Connect", 1, "",
                                kBuilt +
                                    Lines{"Connect", "backtrace",
                                          "fault 1 main: ip-spoofing-app could not connect to ip-spoofing-mgr"} +
                                    kDestroyed},
                    ProcessCase{"AnyNumberButZeroIsALoopFailure", "qmmw_loop_while", 0, "ip-spoofing-app: Leaving...\n",
                                kBuilt + Lines{"Connect", "qmmw_loop_while", "fault 0 main: "} + kDestroyed, 1},
                    ProcessCase{"AnyNumberButZeroIsAManagerOutOfReach", "Connect", 1, "",
                                kBuilt +
                                    Lines{"Connect", "backtrace",
                                          "fault 1 main: ip-spoofing-app could not connect to ip-spoofing-mgr"} +
                                    kDestroyed,
                                1},
                    ProcessCase{"NoMiddleware",
                                "qmmw_init",
                                1,
                                "",
                                {"qmmw_init ip-spoofing-app", "backtrace",
                                 "fault 1 Application: ip_spoofing_app could not instantiate qmmw_"}},
                    ProcessCase{"NoLogSystemIsNoReasonToEnd", "qmmw_log_init", 0, "ip-spoofing-app: Leaving...\n",
                                Lines{"qmmw_init ip-spoofing-app", "qmmw_log_init 38 23 IP_SPOOFING",
                                      "fault 0 IpSpoofAppLog: IpSpoofAppLog could not init log system"} +
                                    Lines{kBuilt.begin() + 2, kBuilt.end()} + Lines{"Connect", "qmmw_loop_while"} +
                                    Lines{"~QmConfdInterface", "~IpSpoofingPreventionMgrClient", "qmmw_finish"}},
                    ProcessCase{
                        "NoFilterLibrary", "fm_init", 1, "",
                        Lines{kBuilt.begin(), kBuilt.begin() + 7} +
                            Lines{"backtrace", "fault 1 get_max_ip_spoofing_entries: Failed to initialize fm_lib"}}),
    [](const auto& row) { return row.param.name; });

TEST_F(Process, SaysFarewellOnlyAfterTheLoop) {
  fakes::TheTrace().Record({Kind::kFault});
  fakes::TheMiddleware().loop_work = {[] { std::fputs("in the loop\n", stderr); }};
  EXPECT_EXIT(RunProcess(), testing::ExitedWithCode(0), testing::StrEq("in the loop\nip-spoofing-app: Leaving...\n"));
}

using ApplicationObject = DaemonTest;

TEST_F(ApplicationObject, NamesTheMiddlewareAsItIsNamed) {
  fakes::TheTrace().Record({Kind::kMiddleware});
  const Application app("some-name");
  EXPECT_THAT(Taken(), testing::Contains("qmmw_init some-name"));
}

TEST_F(ApplicationObject, LoopRunsOnTheFlagThatConstructionSetLast) {
  Application app("some-name");
  EXPECT_EQ(app.Name(), "some-name");
  EXPECT_EQ(app.Run(), 0);
  EXPECT_TRUE(fakes::TheMiddleware().running_at_start);
}

TEST_F(ApplicationObject, HandsTheLoopsResultOn) {
  Application app("some-name");
  fakes::TheScript().Return("qmmw_loop_while", 17);
  EXPECT_EQ(app.Run(), 17);
}

TEST_F(ApplicationObject, GivesTheClientItsCallbacksAndTheHandle) {
  const Application app("some-name");
  EXPECT_EQ(fakes::TheManager().client, app.MgrClient());
  EXPECT_EQ(fakes::TheManager().mw, fakes::TheHandle());
  EXPECT_NE(dynamic_cast<IpSpoofingMgrClientCbItf*>(fakes::TheManager().callbacks), nullptr);
  EXPECT_EQ(fakes::TheWrapper().latest, app.ConfdManager());
  EXPECT_EQ(app.ConfdManager()->Middleware(), fakes::TheHandle());
  EXPECT_EQ(app.ConfdManager()->Name(), "some-name");
}

/// Whether `address` lies in `object`.
template <typename T>
bool LiesIn(const T& object, const void* address) {
  const char* const begin = reinterpret_cast<const char*>(&object);
  const char* const at = static_cast<const char*>(address);
  return at >= begin && at < begin + sizeof object;
}

TEST_F(ApplicationObject, HandsOutItsOwnCallbacksFlagAndHandle) {
  std::optional<Application> app{std::in_place, "some-name"};
  EXPECT_TRUE(LiesIn(*app, dynamic_cast<IpSpoofingMgrClientCbItf*>(fakes::TheManager().callbacks)));
  EXPECT_EQ(app->Run(), 0);
  EXPECT_TRUE(LiesIn(*app, fakes::TheMiddleware().running));
  app.reset();
  EXPECT_TRUE(LiesIn(app, fakes::TheMiddleware().finished));
}

// In a process of its own: whoever asks first builds it for good.
TEST_F(ApplicationObject, SecondCallGivesTheSameAndBuildsNothing) {
  EXPECT_EXIT(
      {
        Application* const first = Application::Instance();
        const bool named = first->Name() == "ip-spoofing-app";
        const bool built = !Taken().empty();
        const bool same = Application::Instance() == first;
        const bool nothing_built = Taken().empty();
        _exit(named && built && same && nothing_built ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(ApplicationObject, HasOneVirtualOperationItsDestructor) {
  EXPECT_TRUE(std::has_virtual_destructor_v<Application>);
}

}  // namespace
}  // namespace ip_spoofing_app
