#include "cdb_store_testing/failing_reads.h"

#include <dlfcn.h>
#include <lmdb.h>

#include <cstdlib>

namespace {

int reads_to_go = 0;  // until one fails; 0: that was before, or none is to

bool IsToFail() { return reads_to_go > 0 && --reads_to_go == 0; }

template <class Function>
Function* Next(const char* symbol) {
  void* const next = ::dlsym(RTLD_NEXT, symbol);
  if (next == nullptr) std::abort();
  return reinterpret_cast<Function*>(next);
}

}  // namespace

extern "C" {
int mdb_get(MDB_txn* txn, MDB_dbi dbi, MDB_val* key, MDB_val* data) {
  static auto* const next = Next<decltype(mdb_get)>("mdb_get");
  return IsToFail() ? MDB_CORRUPTED : next(txn, dbi, key, data);
}
int mdb_cursor_open(MDB_txn* txn, MDB_dbi dbi, MDB_cursor** cursor) {
  static auto* const next = Next<decltype(mdb_cursor_open)>("mdb_cursor_open");
  return IsToFail() ? MDB_CORRUPTED : next(txn, dbi, cursor);
}
int mdb_cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* data, MDB_cursor_op op) {
  static auto* const next = Next<decltype(mdb_cursor_get)>("mdb_cursor_get");
  return IsToFail() ? MDB_CORRUPTED : next(cursor, key, data, op);
}
}

namespace cdb_store::testing {

FailingRead::FailingRead(int failing) { reads_to_go = failing; }
FailingRead::~FailingRead() { reads_to_go = 0; }
bool FailingRead::HasFailed() { return reads_to_go == 0; }

}  // namespace cdb_store::testing
