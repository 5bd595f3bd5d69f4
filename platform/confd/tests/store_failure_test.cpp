// A store that cannot be read is an error of every call, never a node that is missing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <functional>
#include <string>
#include <vector>

#include "cdb_store_testing/failing_reads.h"
#include "cdb_store_testing/models.h"
#include "confd_testing/sockets.h"

namespace {

using cdb_store::testing::FailingRead;
using confd_testing::Connect;
using confd_testing::Put;
using confd_testing::Remove;
using confd_testing::Subscriber;
using confd_testing::TestServer;

constexpr int kManyReads = 1000;

struct Case {
  std::string name;
  std::function<int(int sock)> call;
  int result;  ///< with a store that can be read
};
void PrintTo(const Case& row, std::ostream* out) { *out << row.name; }

Case Exists(const std::string& name, const char* path, int result) {
  return {name, [path](int sock) { return cdb_exists(sock, "%s", path); }, result};
}
Case Count(const std::string& name, const char* path, int result) {
  return {name, [path](int sock) { return cdb_num_instances(sock, "%s", path); }, result};
}

class FailingStore : public testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() {
    server = new TestServer{cdb_store::testing::BoxSchema()};
    server->Commit({Put("/tb:box/name", "n"), Put("/tb:box/site{a}/height", "1.0"),
                    Put("/tb:box/site{b}/height", "2.0"), Put("/tb:box/site{b}/where/floor{3}/label", "third"),
                    Put("/tb:box/weight{-4}"), Put("/tb:box/weight{9}"), Put("/tb:box/dns{10.0.0.1}"),
                    Put("/tb:box/other{true east AAA= 10.0.0.1 :: 1.5 x}")});
  }
  static void TearDownTestSuite() {
    delete server;
    server = nullptr;
  }
  static TestServer* server;
};
TestServer* FailingStore::server = nullptr;

TEST_P(FailingStore, IsAnErrorWhicheverReadFails) {
  const int sock = Connect(*server, CDB_READ_SOCKET);
  int failing = 1;
  for (; failing < kManyReads; ++failing) {
    ASSERT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK) << confd_lasterr();
    {
      const FailingRead read{failing};
      const int result = GetParam().call(sock);
      if (!FailingRead::HasFailed()) {
        EXPECT_EQ(result, GetParam().result) << confd_lasterr();
        break;
      }
      EXPECT_EQ(result, CONFD_ERR) << "read " << failing;
      EXPECT_EQ(confd_errno, CONFD_ERR_OS) << "read " << failing;
      EXPECT_THAT(confd_lasterr(), testing::HasSubstr("MDB_CORRUPTED")) << "read " << failing;
    }
    EXPECT_EQ(cdb_exists(sock, "/tb:box/name"), CONFD_ERR) << "the session goes on as if nothing had been";
    EXPECT_EQ(confd_errno, CONFD_ERR_OS);
    ASSERT_EQ(cdb_end_session(sock), CONFD_OK);
  }
  EXPECT_GT(failing, 1) << "nothing was read";
  cdb_close(sock);
}

INSTANTIATE_TEST_SUITE_P(
    Reads, FailingStore,
    testing::Values(Exists("ExistsLeaf", "/tb:box/name", 1), Exists("ExistsLeafOfEntry", "/tb:box/site{b}/height", 1),
                    Exists("ExistsKeyLeaf", "/tb:box/site{b}/name", 1), Exists("ExistsEntry", "/tb:box/site{b}", 1),
                    Exists("ExistsList", "/tb:box/site", 1), Exists("ExistsLeafListValue", "/tb:box/weight{9}", 1),
                    Exists("ExistsContainer", "/tb:box/site{b}/where", 1), Exists("ExistsPresence", "/tb:box/login", 0),
                    Exists("ExistsPosition", "/tb:box/site[1]", 1),
                    Exists("ExistsPositionPastTheEnd", "/tb:box/site[2]", 0),
                    Exists("ExistsLeafAtPosition", "/tb:box/site[1]/height", 1),
                    Exists("ExistsBelowTwoPositions", "/tb:box/site[1]/where/floor[0]/label", 1),
                    Count("CountEntries", "/tb:box/site", 2), Count("CountNone", "/tb:box/site{a}/where/floor", 0),
                    Count("CountBelowNothing", "/tb:box/site{c}/where/floor", CONFD_ERR),
                    Count("CountBelowPosition", "/tb:box/site[1]/where/floor", 1),
                    Count("CountValues", "/tb:box/weight", 2),
                    Case{"Get",
                         [](int sock) {
                           confd_value_t value;
                           return cdb_get(sock, &value, "/tb:box/site[1]/height");
                         },
                         CONFD_OK},
                    Case{"GetKeyAtPosition",
                         [](int sock) {
                           confd_value_t value;
                           const int result = cdb_get(sock, &value, "/tb:box/site[1]/name");
                           if (result == CONFD_OK) confd_free_value(&value);
                           return result;
                         },
                         CONFD_OK},
                    Case{"GetStr",
                         [](int sock) {
                           char text[16];
                           return cdb_get_str(sock, text, sizeof text, "/tb:box/site[1]/where/floor{3}/label");
                         },
                         CONFD_OK},
                    Case{"GetInt32",
                         [](int sock) {
                           int32_t value = 0;
                           return cdb_get_int32(sock, &value, "/tb:box/weight[1]");
                         },
                         CONFD_OK},
                    Case{"GetIpv4",
                         [](int sock) {
                           in_addr value{};
                           return cdb_get_ipv4(sock, &value, "/tb:box/dns[0]");
                         },
                         CONFD_OK},
                    Case{"GetBinary",
                         [](int sock) {
                           unsigned char* data = nullptr;
                           int size = 0;
                           const int result = cdb_get_binary(sock, &data, &size, "/tb:box/other[0]/blob");
                           std::free(data);
                           return result;
                         },
                         CONFD_OK}),
    [](const auto& row) { return row.param.name; });

/// What was reported, and how it ended.
struct Walk {
  std::vector<std::string> reported;
  int result = 0;
};

confd_iter_ret Note(confd_hkeypath_t* path, confd_iter_op op, confd_value_t*, confd_value_t*, void* state) {
  char text[256] = "";
  confd_pp_kpath(text, sizeof text, path);
  static_cast<std::vector<std::string>*>(state)->push_back(std::to_string(op) + " " + text);
  return ITER_RECURSE;
}

TEST(FailingDifference, IsAnErrorWhicheverReadFails) {
  TestServer server{cdb_store::testing::BoxSchema()};
  server.Commit({Put("/tb:box/site{a}/height", "1.0")});
  Subscriber subscriber{server, {"/box"}, cdb_store::testing::kBoxHash};
  const uint64_t txid = server.Commit({Put("/tb:box/name", "n"), Put("/tb:box/login"), Remove("/tb:box/site{a}"),
                                       Put("/tb:box/site{b}/where/floor{3}/label", "third")});
  ASSERT_NO_FATAL_FAILURE(subscriber.Deliver(txid));
  const auto walk = [&] {
    Walk done;
    done.result = cdb_diff_iterate(subscriber.sock, subscriber.points[0], Note, 0, &done.reported);
    return done;
  };
  const Walk whole = walk();
  ASSERT_EQ(whole.result, CONFD_OK) << confd_lasterr();
  ASSERT_EQ(whole.reported.size(), 6U);
  int failing = 1;
  for (; failing < kManyReads; ++failing) {
    const FailingRead read{failing};
    const Walk part = walk();
    if (!FailingRead::HasFailed()) break;
    EXPECT_EQ(part.result, CONFD_ERR) << "read " << failing;
    EXPECT_EQ(confd_errno, CONFD_ERR_OS) << "read " << failing;
    ASSERT_LE(part.reported.size(), whole.reported.size());
    const auto end = whole.reported.begin() + static_cast<std::ptrdiff_t>(part.reported.size());
    EXPECT_EQ(part.reported, std::vector<std::string>(whole.reported.begin(), end)) << "read " << failing;
  }
  EXPECT_GT(failing, 6) << "nothing was read";
}

}  // namespace
