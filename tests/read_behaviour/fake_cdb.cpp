// The scripted fake, which defines the client library's symbols.
#include "fakes/fake_cdb.h"
#include "cdb_under_test.h"
#include "fakes/reset.h"

namespace read_behaviour {
namespace {

class FakeCdb final : public CdbUnderTest {
 public:
  FakeCdb() { fakes::ResetAll(); }
  void Load(const std::vector<PathValue>& before_commit, const std::vector<PathValue>& running) override {
    Fill(CDB_PRE_COMMIT_RUNNING, before_commit);
    Fill(CDB_RUNNING, running);
  }
  int OpenSession(cdb_db_type db) override { return fakes::TheCdb().OpenSession(db); }
  void CloseSession(int sock) override { fakes::TheCdb().CloseSession(sock); }

 private:
  static void Fill(cdb_db_type db, const std::vector<PathValue>& tree) {
    for (const PathValue& row : tree) {
      if (row.value.empty()) {
        fakes::TheCdb().Put(db, row.path);
      } else {
        fakes::TheCdb().Put(db, row.path, row.value);
      }
    }
  }
};

}  // namespace

std::unique_ptr<CdbUnderTest> MakeCdb() { return std::make_unique<FakeCdb>(); }

}  // namespace read_behaviour
