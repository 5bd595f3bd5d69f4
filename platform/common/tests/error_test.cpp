#include "common/error.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "common/result.h"

namespace common {
namespace {

using testing::ElementsAre;

/// The names of the tests that say yes to an error of this code.
std::vector<std::string> YesOf(ErrorCode code) {
  const Error error{"", "", "", code};
  std::vector<std::string> yes;
  if (error.IsNotFound()) yes.emplace_back("not-found");
  if (error.IsExists()) yes.emplace_back("exists");
  if (error.IsInUse()) yes.emplace_back("in-use");
  if (error.IsInvalid()) yes.emplace_back("invalid");
  if (error.IsUnsupported()) yes.emplace_back("unsupported");
  if (error.IsDamaged()) yes.emplace_back("damaged");
  if (error.IsDenied()) yes.emplace_back("denied");
  if (error.IsExhausted()) yes.emplace_back("exhausted");
  if (error.IsTimedOut()) yes.emplace_back("timed-out");
  if (error.IsClosed()) yes.emplace_back("closed");
  return yes;
}

TEST(ErrorTest, EachCodeAnswersOneTestAndItsName) {
  for (int i = static_cast<int>(ErrorCode::kNotFound); i <= static_cast<int>(ErrorCode::kClosed); ++i) {
    const auto code = static_cast<ErrorCode>(i);
    EXPECT_THAT(YesOf(code), ElementsAre(std::string{ErrorCodeName(code)}));
  }
  EXPECT_THAT(YesOf(ErrorCode::kOther), ElementsAre());
  EXPECT_STREQ(ErrorCodeName(ErrorCode::kOther), "other");
}

struct ErrnoCase {
  int error_number;
  ErrorCode code;
};
class ErrnoCodes : public testing::TestWithParam<ErrnoCase> {};

TEST_P(ErrnoCodes, SystemErrorCarriesCodeNumberAndText) {
  const Error error = SystemError("open", "/x", GetParam().error_number);
  EXPECT_EQ(error.code, GetParam().code) << error.reason;
  EXPECT_EQ(error.system_error, GetParam().error_number);
  EXPECT_EQ(error.Text(), "open /x: " + std::string{std::strerror(GetParam().error_number)});
  EXPECT_EQ(error.line, 0U);
}

INSTANTIATE_TEST_SUITE_P(
    All, ErrnoCodes,
    testing::Values(ErrnoCase{ENOENT, ErrorCode::kNotFound}, ErrnoCase{ENODEV, ErrorCode::kNotFound},
                    ErrnoCase{EEXIST, ErrorCode::kExists}, ErrnoCase{EADDRINUSE, ErrorCode::kInUse},
                    ErrnoCase{EBUSY, ErrorCode::kInUse}, ErrnoCase{EINVAL, ErrorCode::kInvalid},
                    ErrnoCase{ENAMETOOLONG, ErrorCode::kInvalid}, ErrnoCase{ENOSYS, ErrorCode::kUnsupported},
                    ErrnoCase{EOPNOTSUPP, ErrorCode::kUnsupported}, ErrnoCase{EACCES, ErrorCode::kDenied},
                    ErrnoCase{EPERM, ErrorCode::kDenied}, ErrnoCase{EMFILE, ErrorCode::kExhausted},
                    ErrnoCase{ENFILE, ErrorCode::kExhausted}, ErrnoCase{ENOSPC, ErrorCode::kExhausted},
                    ErrnoCase{ETIMEDOUT, ErrorCode::kTimedOut}, ErrnoCase{EPIPE, ErrorCode::kClosed},
                    ErrnoCase{ECONNRESET, ErrorCode::kClosed}, ErrnoCase{ECONNREFUSED, ErrorCode::kClosed},
                    ErrnoCase{EIO, ErrorCode::kOther}));

TEST(ErrorTest, TextLeavesOutEmptyParts) {
  EXPECT_EQ((Error{"open", "/x", "no"}.Text()), "open /x: no");
  EXPECT_EQ((Error{"", "/x", "no"}.Text()), "/x: no");
  EXPECT_EQ((Error{"open", "", "no"}.Text()), "open: no");
  EXPECT_EQ((Error{"open", "/x", ""}.Text()), "open /x");
  EXPECT_EQ((Error{"", "", "no"}.Text()), "no");
  EXPECT_EQ(Error{}.Text(), "");
}

TEST(ResultTest, HoldsAValueOrAnErrorWithItsCode) {
  Result<int> value{7};
  EXPECT_TRUE(value.ok());
  EXPECT_EQ(value.value(), 7);
  const Result<int> failed{Error{"read", "/x", "no such leaf", ErrorCode::kNotFound}};
  EXPECT_FALSE(failed.ok());
  EXPECT_TRUE(failed.error().IsNotFound());
}

TEST(ResultTest, StatusIsOkOrAnError) {
  EXPECT_TRUE(Ok().ok());
  const Status failed = Error{"", "", "no"};
  EXPECT_FALSE(failed.ok());
  EXPECT_EQ(failed.error().code, ErrorCode::kOther);
}

}  // namespace
}  // namespace common
