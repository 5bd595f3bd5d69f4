// Starting and ending a real server: what is in order, and what is refused with one line and status 1.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "cdbd_process.h"

namespace cdbd::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream{path}.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& content) { std::ofstream{path} << content; }

/// The server ends with status 1 and one line that has `words` in it.
void ExpectRefusal(CdbdProcess& server, const std::string& words) {
  const size_t before = server.Log().size();
  EXPECT_EQ(server.RunToEnd(), 1);
  const std::string line = server.Log().substr(before);
  EXPECT_THAT(line, StartsWith("cdbd: "));
  EXPECT_THAT(line, HasSubstr(words));
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
}

TEST(Start, MakesItsDirectoriesAndEndsCleanlyOnSigterm) {
  CdbdProcess server;
  server.Start();
  NetconfClient client = server.Connect();
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth0"}))));
  EXPECT_EQ(server.Stop(), 0);
  EXPECT_FALSE(fs::exists(server.NetconfSocket()));
  EXPECT_FALSE(fs::exists(server.CdbSocket()));
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), Interfaces({"eth0"}));
}

TEST(Start, TakesOverTheSocketsOfOneThatWasKilled) {
  CdbdProcess server;
  server.Start();
  server.Kill();
  EXPECT_TRUE(fs::exists(server.NetconfSocket()));
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), "");
}

TEST(Start, ASecondServerOnTheSameDirectoryIsRefusedAndTheFirstLivesOn) {
  CdbdProcess server;
  server.Start();
  NetconfClient client = server.Connect();
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth0"}))));
  const auto second = ::test::Run(
      {CDBD_EXECUTABLE, "--run-dir", server.RunDir(), "--state-dir", server.StateDir(), "--models", CDBD_MODELS_DIR},
      {}, server.root() + "/second");
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.log, StartsWith("cdbd: "));
  EXPECT_THAT(second.log, HasSubstr(server.StateDir()));
  EXPECT_EQ(client.GetConfig(), Interfaces({"eth0"}));
  EXPECT_EQ(server.Connect().GetConfig(), Interfaces({"eth0"}));
}

TEST(Start, ASecondServerOnTheSameSocketsIsRefusedAndTheFirstLivesOn) {
  CdbdProcess server;
  server.Start();
  const auto second = ::test::Run({CDBD_EXECUTABLE, "--run-dir", server.RunDir(), "--state-dir",
                                   server.root() + "/other", "--models", CDBD_MODELS_DIR},
                                  {}, server.root() + "/second");
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.log, StartsWith("cdbd: "));
  EXPECT_THAT(second.log, HasSubstr(".sock"));
  EXPECT_EQ(server.Connect().GetConfig(), "");
}

struct Damage {
  std::string name;
  std::string content;
};

class DamagedDatabase : public testing::TestWithParam<Damage> {};

TEST_P(DamagedDatabase, IsRefusedAndLeftAsItIs) {
  CdbdProcess server;
  const std::string file = server.StateDir() + "/cdb/data.mdb";
  fs::create_directories(server.StateDir() + "/cdb");
  WriteFile(file, GetParam().content);
  ExpectRefusal(server, server.StateDir() + "/cdb");
  EXPECT_EQ(ReadFile(file), GetParam().content);
}

INSTANTIATE_TEST_SUITE_P(Start, DamagedDatabase,
                         testing::Values(Damage{"Text", "this is not a database\n"},
                                         Damage{"LongText", std::string(100000, 'x')},
                                         Damage{"Zeroes", std::string(16384, '\0')}),
                         [](const auto& row) { return row.param.name; });

TEST(Start, ADatabaseThatIsCutShortIsRefusedAndLeftAsItIs) {
  CdbdProcess server;
  server.Start();
  EXPECT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth0"}))));
  EXPECT_EQ(server.Stop(), 0);
  const std::string file = server.StateDir() + "/cdb/data.mdb";
  const std::string cut = ReadFile(file).substr(0, 6000);
  WriteFile(file, cut);
  ExpectRefusal(server, server.StateDir() + "/cdb");
  EXPECT_EQ(ReadFile(file), cut);
}

TEST(Start, ADatabaseOfAnotherDataModelIsRefusedAndLeftAsItIs) {
  CdbdProcess server;
  server.Start();
  EXPECT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth0"}))));
  EXPECT_EQ(server.Stop(), 0);
  const std::string before = ReadFile(server.StateDir() + "/cdb/data.mdb");
  const auto other = ::test::Run({CDBD_EXECUTABLE, "--run-dir", server.RunDir(), "--state-dir", server.StateDir(),
                                  "--models", CDBD_MODELS_DIR, "--models", CDBD_TEST_MODELS_DIR, "--model", "unlike"},
                                 {}, server.root() + "/other");
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.log, "cdbd: open configuration store " + server.StateDir() +
                           "/cdb: holds /ais:config/anti-ip-spoofing/interface{eth0}, which the data model no longer "
                           "has or stores in another way; nothing was changed\n");
  EXPECT_EQ(ReadFile(server.StateDir() + "/cdb/data.mdb"), before);
}

TEST(Start, AStateDirectoryThatIsAFileIsRefused) {
  CdbdProcess server;
  WriteFile(server.StateDir(), "");
  ExpectRefusal(server, server.StateDir());
}

TEST(Start, ARunDirectoryThatIsAFileIsRefused) {
  CdbdProcess server;
  WriteFile(server.RunDir(), "");
  ExpectRefusal(server, server.RunDir());
}

TEST(Start, ARunDirectoryThatCannotBeMadeIsRefused) {
  const auto run = ::test::Run({CDBD_EXECUTABLE, "--run-dir", "/proc/none", "--state-dir",
                                testing::TempDir() + "/cdbd-none", "--models", CDBD_MODELS_DIR},
                               {}, testing::TempDir() + "/cdbd-none-log");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.log, HasSubstr("/proc/none"));
}

struct ModelCase {
  std::string name;
  std::string module;  ///< its body
  std::string reason;
};
void PrintTo(const ModelCase& row, std::ostream* out) { *out << row.module; }

class BadModel : public testing::TestWithParam<ModelCase> {};

TEST_P(BadModel, IsRefused) {
  const std::string dir = testing::TempDir() + "/cdbd-model-" + GetParam().name;
  fs::create_directories(dir);
  WriteFile(dir + "/bad.yang",
            "module bad { yang-version 1.1; namespace \"urn:bad\"; prefix b; "
            "import cdb-extensions { prefix cdb; } " +
                GetParam().module + " }");
  CdbdProcess server{{"--models", dir, "--model", "bad"}};
  ExpectRefusal(server, GetParam().reason);
  EXPECT_FALSE(fs::exists(server.StateDir() + "/cdb/data.mdb"));
  fs::remove_all(dir);
}

INSTANTIATE_TEST_SUITE_P(
    Start, BadModel,
    testing::Values(ModelCase{"Syntax", "leaf", "load data model bad"},
                    ModelCase{"UserOrdered", "list a { key k; ordered-by user; leaf k { type string; } }",
                              "/bad:a: lists ordered by the user cannot be configuration here"},
                    ModelCase{"Anydata", "anydata a;", "/bad:a: anydata and anyxml cannot be configuration here"},
                    ModelCase{"CallpointOnConfig", "list a { cdb:callpoint x; key k; leaf k { type string; } }",
                              "/bad:a: a callpoint is for a config false list"},
                    ModelCase{"BadTag", "leaf a { cdb:tag x; type string; }", "/bad:a: tag x is not a 32-bit number"},
                    ModelCase{"BadForm", "leaf a { cdb:stored-as x; type string; }",
                              "/bad:a: stored-as x is not octets, ipv4 or ipv6"},
                    ModelCase{"FormOfANumber", "leaf a { cdb:stored-as ipv4; type int8; }",
                              "/bad:a: stored-as is for strings"}),
    [](const auto& row) { return row.param.name; });

TEST(Start, AKeyTooLongToBeStoredIsRefusedAtTheEdit) {
  const std::string dir = testing::TempDir() + "/cdbd-model-long-key";
  fs::create_directories(dir);
  WriteFile(dir + "/long.yang",
            "module long { yang-version 1.1; namespace \"urn:long\"; prefix l; list a { key \"k m\"; "
            "leaf k { type string; } leaf m { type string; } } }");
  CdbdProcess server{{"--models", dir, "--model", "long"}};
  server.Start();
  NetconfClient client = server.Connect();
  const auto entry = [](size_t size) {
    return "<a xmlns=\"urn:long\"><k>" + std::string(size, 'x') + "</k><m>y</m></a>";
  };
  const std::string refused = client.EditConfig(entry(503));
  EXPECT_THAT(refused, HasSubstr("<error-tag>invalid-value</error-tag>"));
  EXPECT_THAT(refused, HasSubstr(">/l:a/l:m<"));
  EXPECT_THAT(refused, HasSubstr("the keys are too long to be stored"));
  EXPECT_TRUE(IsOk(client.EditConfig(entry(502))));
  EXPECT_EQ(client.GetConfig(), entry(502));
  fs::remove_all(dir);
}

TEST(Start, AModelThatIsNotThereIsRefused) {
  CdbdProcess server{{"--model", "absent"}};
  ExpectRefusal(server, "load data model absent");
}

TEST(CommandLine, HelpAndVersion) {
  const std::string log = testing::TempDir() + "/cdbd-help";
  const auto help = ::test::Run({CDBD_EXECUTABLE, "--help"}, {}, log);
  EXPECT_EQ(help.status, 0);
  for (const char* option : {"--run-dir", "--state-dir", "--models", "--max-sessions", "--hello-timeout",
                             "--subscriber-timeout", "--provider-timeout", "--log-level"})
    EXPECT_THAT(help.output, HasSubstr(option));
  const auto version = ::test::Run({CDBD_EXECUTABLE, "--version"}, {}, log + "-version");
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.output, StartsWith("cdbd "));
  const auto unknown = ::test::Run({CDBD_EXECUTABLE, "--nonsense"}, {}, log + "-unknown");
  EXPECT_NE(unknown.status, 0);
  EXPECT_THAT(unknown.log, HasSubstr("--nonsense"));
}

struct BadNumber {
  std::string option;
  std::string value;
  std::string range;
};
void PrintTo(const BadNumber& row, std::ostream* out) { *out << row.option << " " << row.value; }
class BadNumbers : public testing::TestWithParam<BadNumber> {};

TEST_P(BadNumbers, AreRefusedWithTheRange) {
  CdbdProcess server{{GetParam().option, GetParam().value}};
  EXPECT_GT(server.RunToEnd(), 0);
  EXPECT_THAT(server.Log(), StartsWith(GetParam().option + ": '" + GetParam().value + "' is not a number from " +
                                       GetParam().range + "\n"));
  EXPECT_FALSE(fs::exists(server.StateDir()));
}

INSTANTIATE_TEST_SUITE_P(CommandLine, BadNumbers,
                         testing::Values(BadNumber{"--max-sessions", "0", "1 to 10000"},
                                         BadNumber{"--max-sessions", "-1", "1 to 10000"},
                                         BadNumber{"--max-message", "0", "1 to 2000"},
                                         BadNumber{"--max-unsent", "-1", "1 to 1048576"},
                                         BadNumber{"--hello-timeout", "-1", "0.001 to 86400"},
                                         BadNumber{"--hello-timeout", "nan", "0.001 to 86400"},
                                         BadNumber{"--subscriber-timeout", "-5", "0.001 to 86400"},
                                         BadNumber{"--subscriber-timeout", "1e300", "0.001 to 86400"},
                                         BadNumber{"--provider-timeout", "0", "0.001 to 86400"},
                                         BadNumber{"--database-size", "-1", "1 to 16777216"},
                                         BadNumber{"--database-size", "1x", "1 to 16777216"}));

class UnsafeDirectory : public testing::TestWithParam<const char*> {};

TEST_P(UnsafeDirectory, WritableByEveryoneIsRefused) {
  CdbdProcess server;
  const std::string directory = server.root() + "/" + GetParam();
  fs::create_directory(directory);
  fs::permissions(directory, fs::perms::all);
  ExpectRefusal(server, "use directory " + directory + ": every user may write to it");
  EXPECT_EQ(fs::directory_iterator{directory}, fs::directory_iterator{}) << "nothing was put there";
}

INSTANTIATE_TEST_SUITE_P(Start, UnsafeDirectory, testing::Values("run", "state"),
                         [](const auto& row) { return std::string{row.param}; });

}  // namespace
}  // namespace cdbd::test
