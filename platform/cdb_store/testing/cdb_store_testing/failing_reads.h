#pragma once

namespace cdb_store::testing {

/// Lets reads of the store fail in a test program that has testing/failing_reads.cpp among its sources: the calls that
/// read records end there instead of in LMDB. Works in its own process only.
///
/// From its making on, read number `failing` (from 1) fails with MDB_CORRUPTED and reads nothing; the others are real.
/// One at a time.
class FailingRead final {
 public:
  explicit FailingRead(int failing);
  ~FailingRead();
  FailingRead(const FailingRead&) = delete;
  FailingRead& operator=(const FailingRead&) = delete;

  /// There were that many reads.
  [[nodiscard]] static bool HasFailed();
};

}  // namespace cdb_store::testing
