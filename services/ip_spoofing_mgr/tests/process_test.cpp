// Real processes: the manager with the memory dataplane, and an application that configures it.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "common/paths.h"
#include "control_client.h"
#include "support/element/child_process.h"

namespace mgr::test {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::test::ChildProcess;
using ::test::Eventually;
using ::test::Finished;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

struct Configuration {
  long version = 0;
  std::set<int> ports;
  std::map<int, int> modes;
  std::map<std::string, int> entries;  ///< "PORT VLAN ADDRESS" to the MAC's last byte

  [[nodiscard]] std::string FileText() const {
    std::string text = std::to_string(version) + "\n";
    for (const int port : ports) text += "port " + std::to_string(port) + "\n";
    for (const auto& [port, mode] : modes) text += "mode " + std::to_string(port) + " " + std::to_string(mode) + "\n";
    for (const auto& [key, mac] : entries) text += "entry " + key + " " + std::to_string(mac) + "\n";
    return text;
  }
  /// As ManagerTable() writes it.
  [[nodiscard]] std::set<std::string> Table() const {
    static const std::array<std::string, 4> kModes{"none", "ipv4-all", "ipv6-all", "all"};
    std::map<int, std::string> lines;
    for (const int port : ports) lines[port] = "on none";
    for (const auto& [port, mode] : modes) {
      lines[port] = (ports.contains(port) ? "on " : "off ") + kModes.at(static_cast<size_t>(mode));
    }
    for (const auto& [key, mac] : entries) lines.try_emplace(std::stoi(key), "off none");
    std::set<std::string> table;
    for (const auto& [port, line] : lines) table.insert("eth" + std::to_string(port) + " " + line);
    for (const auto& [key, mac] : entries) {
      std::array<char, 3> byte{};
      std::snprintf(byte.data(), byte.size(), "%02x", static_cast<unsigned>(mac) & 0xFFU);
      table.insert("eth" + key + (mac == 0 ? " any" : std::string{" 00:00:00:00:00:"} + byte.data()));
    }
    return table;
  }
};

class ProcessTest : public testing::Test {
 protected:
  ProcessTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "mgr-process-XXXXXX").string();
    root_ = ::mkdtemp(pattern.data());
    ::setenv(common::kRunDirVariable, (root_ + "/run").c_str(), 1);
    ::setenv(common::kStateDirVariable, (root_ + "/state").c_str(), 1);
  }
  ~ProcessTest() override {
    if (HasFailure() && manager_) std::fprintf(stderr, "%s", manager_->Log().c_str());
    app_.reset();
    manager_.reset();
    std::filesystem::remove_all(root_);
  }

  std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& command, const std::string& log) {
    return std::make_unique<ChildProcess>(command, ChildProcess::Environment{}, root_ + "/" + log);
  }
  void StartManager(const std::vector<std::string>& options = {"--assume-interfaces"}) {
    std::vector<std::string> command{MANAGER, "--dataplane", "memory"};
    command.insert(command.end(), options.begin(), options.end());
    manager_ = Start(command, "manager");
  }
  void StartApp() { app_ = Start({TEST_APP, root_ + "/configuration"}, "app"); }
  void Kill(std::unique_ptr<ChildProcess>* process) {
    (*process)->Signal(SIGKILL);
    ASSERT_EQ((*process)->Wait(seconds{10}), 128 + SIGKILL);
  }
  void Commit(Configuration* configuration) {
    ++configuration->version;
    const std::string path = root_ + "/configuration";
    std::ofstream{path + ".new"} << configuration->FileText();
    std::filesystem::rename(path + ".new", path);
  }
  [[nodiscard]] bool Answers() const {
    return AskManager("show status", json::object(), [](const json&) {}).ok();
  }

  /// "eth1 on none", "eth1 5 10.0.0.1 any"; a row that is not in force ends with its reason. Nothing when it is down.
  std::set<std::string> ManagerTable() const {
    std::set<std::string> table;
    const auto read = [&](const std::string& command, const std::function<std::string(const json&)>& text) {
      const auto asked = AskManager(command, json::object(), [&](const json& part) {
        for (const json& row : part["rows"]) table.insert(text(row));
      });
      if (!asked) table.insert(asked.error().Text());
    };
    read("show ports", [](const json& row) {
      return row["port"].get<std::string>() + (row["enabled"].get<bool>() ? " on " : " off ") +
             row["mode"].get<std::string>();
    });
    read("show entries", [](const json& row) {
      return row["port"].get<std::string>() + " " + std::to_string(row["vlan"].get<int>()) + " " +
             row["address"].get<std::string>() + " " + (row["mac"].is_null() ? "any" : row["mac"].get<std::string>());
    });
    return table;
  }
  void ExpectTable(const Configuration& configuration) {
    const auto expected = configuration.Table();
    std::set<std::string> table;
    Eventually([&] { return (table = ManagerTable()) == expected; }, seconds{20});
    EXPECT_EQ(table, expected);
  }

  std::string root_;
  std::unique_ptr<ChildProcess> manager_;
  std::unique_ptr<ChildProcess> app_;
};

class Changes {
 public:
  explicit Changes(uint32_t seed) : random_{seed} {}
  int Pick(int n) { return static_cast<int>(random_() % static_cast<uint32_t>(n)); }
  void Change(Configuration* configuration) {
    if (Pick(12) == 0) {
      *configuration = {.version = configuration->version, .ports = {}, .modes = {}, .entries = {}};
      return;
    }
    for (int i = 0; i < 1 + Pick(10); ++i) One(configuration);
  }

 private:
  void One(Configuration* configuration) {
    const int port = 1 + Pick(4);
    const std::string key = std::to_string(port) + " " + std::to_string(Pick(3)) + " 10.0.0." + std::to_string(Pick(8));
    switch (Pick(8)) {
      case 0:
        configuration->ports.insert(port);
        break;
      case 1:
        configuration->ports.erase(port);
        break;
      case 2:
        configuration->modes[port] = 1 + Pick(3);
        break;
      case 3:
        configuration->modes.erase(port);
        break;
      case 4:
        configuration->entries.erase(key);
        break;
      default:
        configuration->entries[key] = Pick(3);
    }
  }
  std::mt19937 random_;
};

class KillAndRestart : public ProcessTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(KillAndRestart, AtRandomMomentsEndsInExactlyWhatIsConfigured) {
  Changes changes{GetParam()};
  Configuration configuration;
  Commit(&configuration);
  StartManager();
  StartApp();
  for (int step = 0; step < 25; ++step) {
    changes.Change(&configuration);
    Commit(&configuration);
    ::usleep(static_cast<useconds_t>(changes.Pick(8000)));  // the moment of the kill
    const int what = changes.Pick(8);
    const bool kill_manager = what == 0 || what == 2;
    const bool kill_app = what == 1 || what == 2;
    if (kill_manager) Kill(&manager_);
    if (kill_app) Kill(&app_);
    if ((kill_manager || kill_app) && changes.Pick(2) == 0) {  // the configuration changes while they are away
      changes.Change(&configuration);
      Commit(&configuration);
    }
    if (kill_app && changes.Pick(2) == 0) {
      StartApp();
      if (kill_manager) StartManager();
    } else {
      if (kill_manager) StartManager();
      if (kill_app) StartApp();
    }
    if (changes.Pick(3) == 0) ExpectTable(configuration);
    ASSERT_FALSE(HasFailure()) << "in step " << step;
  }
  ExpectTable(configuration);
  EXPECT_TRUE(app_->Running());
}

INSTANTIATE_TEST_SUITE_P(Seeds, KillAndRestart, testing::Range(1U, 9U));

TEST_F(ProcessTest, AnEmptiedConfigurationLeavesNothingAfterARestartOfTheApplication) {
  Configuration configuration{.version = 0, .ports = {1}, .modes = {{2, 3}}, .entries = {{"1 0 10.0.0.1", 0}}};
  Commit(&configuration);
  StartManager();
  StartApp();
  ExpectTable(configuration);
  Kill(&app_);
  configuration = {.version = configuration.version, .ports = {}, .modes = {}, .entries = {}};
  Commit(&configuration);
  EXPECT_FALSE(ManagerTable().empty()) << "what was configured stays while the application is away";
  StartApp();
  ExpectTable(configuration);
}

TEST_F(ProcessTest, TheNewestApplicationConfiguresAndTheOtherComesBackWhenItEnds) {
  Configuration first{.version = 0, .ports = {1}, .modes = {}, .entries = {}};
  Commit(&first);
  StartManager();
  StartApp();
  ExpectTable(first);
  const std::string path = root_ + "/second";
  Configuration second{.version = 1, .ports = {2}, .modes = {}, .entries = {{"2 0 10.0.0.2", 0}}};
  std::ofstream{path} << second.FileText();
  auto other = Start({TEST_APP, path}, "second-app");
  ExpectTable(second);
  first.ports.insert(3);
  Commit(&first);
  EXPECT_TRUE(
      Eventually([&] { return app_->Log().find("another client configures") != std::string::npos; }, seconds{20}));
  EXPECT_EQ(ManagerTable(), second.Table()) << "it gives way";
  Kill(&other);
  ExpectTable(first);
}

TEST_F(ProcessTest, TheManagerEndsCleanlyOnSigterm) {
  StartManager();
  ASSERT_TRUE(Eventually([&] { return Answers(); }, seconds{10}));
  manager_->Signal(SIGTERM);
  EXPECT_EQ(manager_->Wait(seconds{10}), 0);
  EXPECT_THAT(manager_->Log(), HasSubstr("what is in force stays"));
  EXPECT_FALSE(std::filesystem::exists(common::MgrSocketPath()));
  EXPECT_FALSE(std::filesystem::exists(common::MgrControlSocketPath()));
}

/// Lines that say why the manager could not start.
size_t ErrorLines(const std::string& log) {
  const std::string begin = "ip-spoofing-mgr: ";
  size_t lines = 0;
  for (size_t at = log.find(begin); at != std::string::npos; at = log.find(begin, at + 1)) ++lines;
  return lines;
}

TEST_F(ProcessTest, ASecondManagerOnTheSameDirectoryEndsWithOneLineAndDisturbsNobody) {
  StartManager();
  ASSERT_TRUE(Eventually([&] { return Answers(); }, seconds{10}));
  const Finished second = ::test::Run({MANAGER, "--dataplane", "memory"}, {}, root_ + "/second");
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.log, HasSubstr("another ip-spoofing-mgr runs on this directory"));
  EXPECT_EQ(ErrorLines(second.log), 1U);
  EXPECT_TRUE(Answers());
}

TEST_F(ProcessTest, WrongOptionsAndDirectoriesEndWithOneLine) {
  struct Case {
    std::vector<std::string> options;
    std::string run_dir;
    std::string line;
  };
  std::ofstream{root_ + "/file"} << "x";
  std::filesystem::create_directory(root_ + "/open");
  std::filesystem::permissions(root_ + "/open", std::filesystem::perms::all);
  const std::vector<Case> cases{
      {{"--dataplane", "magic"}, root_ + "/run", "dataplane magic: there is none of that name"},
      {{"--dataplane", "memory"}, root_ + "/file", "file"},
      {{"--dataplane", "memory"}, root_ + "/file/below", "file"},
      {{"--dataplane", "memory"}, root_ + "/open", "use directory " + root_ + "/open: every user may write to it"},
      {{"--dataplane", "memory"}, root_ + "/" + std::string(120, 'x'), "File name too long"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.line);
    std::vector<std::string> command{MANAGER};
    command.insert(command.end(), test.options.begin(), test.options.end());
    const Finished finished = ::test::Run(command, {{common::kRunDirVariable, test.run_dir}}, root_ + "/wrong");
    EXPECT_EQ(finished.status, 1);
    EXPECT_THAT(finished.log, HasSubstr(test.line));
    EXPECT_EQ(ErrorLines(finished.log), 1U) << finished.log;
    std::filesystem::remove(root_ + "/wrong.err");
  }
}

TEST_F(ProcessTest, BadNumbersAreRefusedWithTheRange) {
  struct Case {
    const char* option;
    const char* value;
    const char* range;
  };
  for (const auto& [option, value, range] : {Case{"--capacity", "0", "1 to 4000000"},
                                             {"--capacity", "-1", "1 to 4000000"},
                                             {"--hold", "-1", "0 to 10000"},
                                             {"--hold", "1.5", "0 to 10000"},
                                             {"--metrics-port", "-1", "0 to 65535"},
                                             {"--metrics-port", "65536", "0 to 65535"}}) {
    const std::string prefix = root_ + "/number" + option + value;
    const Finished finished = ::test::Run({MANAGER, option, value}, {}, prefix);
    EXPECT_GT(finished.status, 0);
    EXPECT_THAT(finished.log,
                StartsWith(std::string{option} + ": '" + value + "' is not a number from " + range + "\n"));
  }
}

TEST_F(ProcessTest, TheToolSaysWhyTheManagerIsOutOfReach) {
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{CTL, "show"}, {CTL, "show", "ports", "--json"}, {CTL, "monitor", "eth1", "on"}}) {
    const Finished finished = ::test::Run(command, {}, root_ + "/ctl");
    EXPECT_EQ(finished.status, 1);
    EXPECT_THAT(finished.output, IsEmpty());
    EXPECT_EQ(finished.log, "ip-spoofing-ctl: cannot reach ip-spoofing-mgr: connect " + common::MgrControlSocketPath() +
                                ": No such file or directory\n");
  }
  EXPECT_EQ(::test::Run({CTL, "show", "nonsense"}, {}, root_ + "/usage").status, 2);
  EXPECT_EQ(::test::Run({CTL}, {}, root_ + "/usage").status, 2);
}

TEST_F(ProcessTest, TheToolShowsTablesForPeopleAndJsonForPrograms) {
  Configuration configuration{.version = 0, .ports = {1}, .modes = {{2, 1}}, .entries = {{"1 5 10.0.0.1", 7}}};
  Commit(&configuration);
  StartManager({"--assume-interfaces", "--hold", "0"});
  StartApp();
  ExpectTable(configuration);
  const Finished ports = ::test::Run({CTL, "show", "ports"}, {}, root_ + "/ports");
  EXPECT_EQ(ports.status, 0);
  EXPECT_EQ(ports.output,
            "PORT  IFINDEX  ENABLED  ALLOW-ALL  MONITOR  ENTRIES  INSTALLED  STATE  REASON\n"
            "eth1        1  yes      none       no             1          1      1  -\n"
            "eth2        1  no       ipv4-all   no             0          0      0  the port is not enabled\n");
  const Finished entries = ::test::Run({CTL, "show", "entries"}, {}, root_ + "/entries");
  EXPECT_EQ(entries.output,
            "PORT  VLAN  ADDRESS   MAC                STATE  REASON\n"
            "eth1     5  10.0.0.1  00:00:00:00:00:07      1  -\n");
  const Finished one = ::test::Run({CTL, "show", "entries", "--port", "eth2", "--json"}, {}, root_ + "/one");
  EXPECT_EQ(json::parse(one.output), json::array());
  EXPECT_EQ(::test::Run({CTL, "monitor", "eth1", "on"}, {}, root_ + "/monitor").status, 0);
  const json all = json::parse(::test::Run({CTL, "--json", "show"}, {}, root_ + "/all").output);
  EXPECT_EQ(all["ports"][0]["monitor"], true);
  EXPECT_EQ(all["entries"].size(), 1U);
  EXPECT_EQ(all["status"]["entries-in-force"], 1);
  EXPECT_EQ(all["status"]["clients"][0]["configures"], true);
  const Finished wrong = ::test::Run({CTL, "monitor", "eth9", "on"}, {}, root_ + "/wrong");
  EXPECT_EQ(wrong.status, 1);
  EXPECT_THAT(wrong.log, HasSubstr("port eth9 is not configured"));
}

TEST_F(ProcessTest, ManyEntriesBeyondTheCapacityAreShownWithTheirReason) {
  Configuration configuration{.version = 0, .ports = {1}, .modes = {}, .entries = {}};
  for (int i = 0; i < 5000; ++i) {
    configuration.entries["1 0 10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250)] = 0;
  }
  Commit(&configuration);
  StartManager({"--assume-interfaces", "--capacity", "3000"});
  StartApp();
  ExpectTable(configuration);
  const json all = json::parse(::test::Run({CTL, "--json", "show"}, {}, root_ + "/all").output);
  EXPECT_EQ(all["status"]["entries-in-force"], 3000);
  EXPECT_EQ(all["status"]["entries-beyond-capacity"], 2000);
  size_t waiting = 0;
  for (const json& row : all["entries"]) waiting += row["reason"] == "beyond the capacity of the table" ? 1 : 0;
  EXPECT_EQ(waiting, 2000U);
}

}  // namespace
}  // namespace mgr::test
