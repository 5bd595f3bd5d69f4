// The client library over a store, with a server in a process of its own.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "cdb_store_testing/models.h"
#include "cdb_under_test.h"
#include "confd_testing/test_server.h"

namespace read_behaviour {
namespace {

class RealCdb final : public CdbUnderTest {
 public:
  void Load(const std::vector<PathValue>& before_commit, const std::vector<PathValue>& running) override {
    server_.Commit(Edits(before_commit), true);
    std::vector<confd_testing::Edit> edits = Edits(running);
    edits.insert(edits.begin(), confd_testing::Remove("/config"));
    server_.Commit(edits);
  }
  int OpenSession(cdb_db_type db) override {
    const int sock = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sockaddr_un address = server_.address();
    EXPECT_EQ(cdb_connect(sock, CDB_READ_SOCKET, reinterpret_cast<const sockaddr*>(&address), sizeof address), CONFD_OK)
        << confd_lasterr();
    EXPECT_EQ(cdb_start_session(sock, db), CONFD_OK) << confd_lasterr();
    return sock;
  }
  void CloseSession(int sock) override {
    EXPECT_EQ(cdb_end_session(sock), CONFD_OK);
    EXPECT_EQ(cdb_close(sock), CONFD_OK);
  }

 private:
  static std::vector<confd_testing::Edit> Edits(const std::vector<PathValue>& tree) {
    std::vector<confd_testing::Edit> edits;
    for (const PathValue& row : tree) edits.push_back(confd_testing::Put(row.path, row.value));
    return edits;
  }
  confd_testing::TestServer server_{cdb_store::testing::AntiSpoofingSchema()};
};

}  // namespace

std::unique_ptr<CdbUnderTest> MakeCdb() { return std::make_unique<RealCdb>(); }

}  // namespace read_behaviour
