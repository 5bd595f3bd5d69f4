#pragma once

#include <sys/types.h>

#include <functional>

/// Parts of a test that run in processes of their own, forked from the test.
namespace test {

/// Runs `body` in a child, which ends with what it gives as exit status.
pid_t StartChild(const std::function<int()>& body);
/// The exit status; minus the signal's number when one ended it.
int WaitFor(pid_t child);
inline int InChild(const std::function<int()>& body) { return WaitFor(StartChild(body)); }

/// Waits until the process waits for a lock on a file. False when it does not within 20 seconds.
[[nodiscard]] bool WaitUntilItWaitsForALock(pid_t process);

}  // namespace test
