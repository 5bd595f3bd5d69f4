#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace test {

/// Whether the programs under test are instrumented. UndefinedBehaviorSanitizer opens a pipe when it looks at an
/// object's type, and reports a wrong type if it gets no descriptor: a program without any cannot run under it.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
inline constexpr char kSanitizedReason[] = "a program without descriptors cannot run under the sanitizers";

/// Limits `pid` to the descriptors that it has open now and `spare` more. Fails the running test if it cannot.
void LimitDescriptors(pid_t pid, size_t spare);
/// Gives it 1024 again.
void UnlimitDescriptors(pid_t pid);
/// Whether the process uses no processor time for 300 ms, within ten seconds.
bool ComesToRest(pid_t pid);
/// Lines of `text` that contain `part`.
size_t LinesWith(const std::string& text, const std::string& part);

}  // namespace test
