#include "fakes/trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace fakes {
namespace {

void Dump() {
  for (const std::string& line : TheTrace().Lines()) std::fprintf(stderr, "%s\n", line.c_str());
  std::fflush(stderr);
}

}  // namespace

void Trace::Add(Kind kind, std::string line) {
  if (kinds_.contains(kind)) lines_.push_back(std::move(line));
}

std::vector<std::string> Trace::Take() { return std::exchange(lines_, {}); }

// A destructor of a static object may still add lines, so the dump is registered before any such object can be built
// later in the statement, and the trace itself is never destroyed.
void Trace::DumpAtExit() { std::atexit(Dump); }

Trace& TheTrace() {
  static Trace* const trace = new Trace;
  return *trace;
}

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char text[16384];
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

}  // namespace fakes
