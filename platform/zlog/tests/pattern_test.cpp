#include "pattern.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace zlog_impl {
namespace {

const Levels kLevels = {{10, {"LOG_DETAIL", LOG_DEBUG}}, {12, {"Error", LOG_ERR}}};

std::string HostName() {
  std::array<char, 256> name{};
  ::gethostname(name.data(), name.size() - 1);
  return name.data();
}

struct FormatCase {
  std::string name;
  std::string format;
  std::string text;
  int level = 12;
};

class Format : public testing::TestWithParam<FormatCase> {
 protected:
  static void SetUpTestSuite() {
    ::setenv("TZ", "UTC", 1);
    ::setenv("PATTERN_TEST", "from the environment", 1);
    ::unsetenv("PATTERN_TEST_UNSET");
  }
  static Line SampleLine(int level) {
    Line line;
    line.time = std::chrono::system_clock::time_point{std::chrono::microseconds{1'700'000'000'012'345}};
    line.level = level;
    line.category = "ip-spoofing-app";
    line.file = "src/app/main.cpp";
    line.function = "TreatSubscriptionMsg";
    line.number = 42;
    line.message = "100% sure";
    return line;
  }
};

TEST_P(Format, Gives) {
  const auto pattern = Pattern::Compile(GetParam().format);
  ASSERT_TRUE(pattern) << pattern.error().Text();
  std::string text = "before ";
  pattern.value().Append(SampleLine(GetParam().level), kLevels, text);
  EXPECT_EQ(text, "before " + GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, Format,
    testing::Values(
        FormatCase{"Nothing", "", ""}, FormatCase{"Literal", "a b", "a b"}, FormatCase{"Percent", "%%%%d", "%%d"},
        FormatCase{"TimeByDefault", "%d", "2023-11-14 22:13:20"},
        FormatCase{"TimeDefaultSpelledShort", "%D", "2023-11-14 22:13:20"},
        FormatCase{"TimeWithFormat", "%d(%H:%M)", "22:13"},
        FormatCase{"TimeWithMillisecondsInside", "%d(%T.%ms|%us|%%ms)", "22:13:20.012|012345|%ms"},
        FormatCase{"Milliseconds", "%ms", "012"}, FormatCase{"Microseconds", "%us", "012345"},
        FormatCase{"MessageThenOtherLetter", "%mx", "100% surex"}, FormatCase{"Category", "%c", "ip-spoofing-app"},
        FormatCase{"LevelAsWritten", "%V", "Error"}, FormatCase{"LevelSmall", "%v", "log_detail", 10},
        FormatCase{"LevelWithoutName", "%V/%v", "UNKNOWN/unknown", 77}, FormatCase{"Newline", "%m%n", "100% sure\n"},
        FormatCase{"File", "%F", "src/app/main.cpp"}, FormatCase{"FileWithoutFolders", "%f", "main.cpp"},
        FormatCase{"Line", "%L", "42"}, FormatCase{"Function", "%U", "TreatSubscriptionMsg"},
        FormatCase{"Process", "%p", std::to_string(::getpid())},
        FormatCase{"Thread", "%k %t", std::to_string(::getpid()) + " " + std::to_string(::getpid())},
        FormatCase{"Host", "%H", HostName()}, FormatCase{"Environment", "[%E(PATTERN_TEST)]", "[from the environment]"},
        FormatCase{"EnvironmentUnset", "[%E(PATTERN_TEST_UNSET)]", "[]"},
        FormatCase{"WidthPadsOnTheLeft", "[%8V]", "[   Error]"},
        FormatCase{"MinusPadsOnTheRight", "[%-8V]", "[Error   ]"}, FormatCase{"WidthNeverCuts", "[%2V]", "[Error]"},
        FormatCase{"PrecisionCuts", "[%.3V]", "[Err]"}, FormatCase{"WidthAndPrecision", "[%-6.3V]", "[Err   ]"},
        FormatCase{"ZeroPads", "[%06L]", "[000042]"},
        FormatCase{"AllTogether", "%d(%F) %-5V %c (%f:%L) %m%n",
                   "2023-11-14 Error ip-spoofing-app (main.cpp:42) 100% sure\n"}),
    [](const auto& row) { return row.param.name; });

struct BadFormat {
  std::string name;
  std::string format;
  std::string error;
};
class FormatError : public testing::TestWithParam<BadFormat> {};

TEST_P(FormatError, SaysWhatIsWrong) {
  const auto pattern = Pattern::Compile(GetParam().format);
  ASSERT_FALSE(pattern);
  EXPECT_EQ(pattern.error().Text(), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(Formats, FormatError,
                         testing::Values(BadFormat{"UnknownLetter", "%m %q", "unknown conversion '%q'"},
                                         BadFormat{"UnknownAfterWidth", "%-5!", "unknown conversion '%!'"},
                                         BadFormat{"EndsInPercent", "100%", "'%' at the end of a format"},
                                         BadFormat{"EndsInWidth", "%-5", "'%' at the end of a format"},
                                         BadFormat{"OpenTime", "%d(%F", "missing ')'"},
                                         BadFormat{"OpenEnvironment", "%E(HOME", "missing ')'"},
                                         BadFormat{"EnvironmentWithoutName", "%E", "unknown conversion '%E'"},
                                         BadFormat{"UnknownTime", "%d(%F %Q)", "unknown time conversion '%Q'"},
                                         BadFormat{"TimeEndsInPercent", "%d(%F %)", "unknown time conversion '%'"}),
                         [](const auto& row) { return row.param.name; });

TEST(Constant, IsAFormatWithoutConversionsOfTheLine) {
  EXPECT_TRUE(Pattern::Compile("/var/log/%E(PATTERN_TEST_UNSET)%%.log").value().IsConstant());
  EXPECT_FALSE(Pattern::Compile("/var/log/%c.log").value().IsConstant());
}

}  // namespace
}  // namespace zlog_impl
