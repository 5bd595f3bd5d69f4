// What the client library tells the rest of the process about its reads.
#include "common/config_reads.h"

#include <gtest/gtest.h>

#include "cdb_under_test.h"

namespace read_behaviour {
namespace {

constexpr int kNamespace = 0x41fef11b;

struct Counts {
  uint64_t reads;
  uint64_t failures;
  bool operator==(const Counts&) const = default;
};

class ConfigReads : public testing::Test {
 protected:
  void SetUp() override {
    cdb_->Load({}, {{"/config/anti-ip-spoofing/interface{eth1}", ""}});
    sock_ = cdb_->OpenSession(CDB_RUNNING);
    ASSERT_EQ(cdb_set_namespace(sock_, kNamespace), CONFD_OK);
    before_ = common::ProcessConfigReads();
  }
  void TearDown() override { cdb_->CloseSession(sock_); }
  [[nodiscard]] Counts SinceSetUp() const {
    const common::ConfigReads& now = common::ProcessConfigReads();
    return {now.reads - before_.reads, now.failures - before_.failures};
  }

  std::unique_ptr<CdbUnderTest> cdb_ = MakeCdb();
  int sock_ = -1;
  common::ConfigReads before_;
};

TEST_F(ConfigReads, CountReadsWhetherOrNotTheNodeExists) {
  EXPECT_EQ(cdb_exists(sock_, "/config/anti-ip-spoofing/interface{eth1}"), 1);
  EXPECT_EQ(cdb_exists(sock_, "/config/anti-ip-spoofing/interface{eth2}"), 0);
  EXPECT_EQ(cdb_num_instances(sock_, "/config/anti-ip-spoofing/interface{eth2}/allowed-ip/ipv4"), CONFD_ERR);
  EXPECT_EQ(SinceSetUp(), (Counts{3, 0}));
}

TEST_F(ConfigReads, CountFailuresThatAreNotAbsence) {
  EXPECT_EQ(cdb_exists(sock_, "/config/no-such-node"), CONFD_ERR);
  EXPECT_EQ(SinceSetUp(), (Counts{1, 1}));
}

TEST_F(ConfigReads, DoNotCountATransactionId) {
  cdb_txid txid;
  EXPECT_EQ(cdb_get_txid(sock_, &txid), CONFD_OK);
  EXPECT_EQ(SinceSetUp(), (Counts{0, 0}));
}

}  // namespace
}  // namespace read_behaviour
