#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "require.h"

namespace {

int HexDigit(char c) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const size_t at = kDigits.find(c);
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

std::optional<std::string> BytesOfHex(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int high = HexDigit(hex[i]);
    const int low = HexDigit(hex[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(high * 16 + low));
  }
  return bytes;
}

void Run(std::string_view name, const std::string& bytes) {
  std::fprintf(stderr, "%.*s\n", static_cast<int>(name.size()), name.data());
  // A copy that ends where its allocation ends.
  const auto copy = std::make_unique<unsigned char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  LLVMFuzzerTestOneInput(copy.get(), bytes.size());
}

/// Runs one input a file. Returns how many, or -1 if `path` cannot be read.
int RunDirectory(const std::string& path) {
  int inputs = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator{path, error}) {
    std::ifstream file{entry.path(), std::ios::binary};
    if (!file) return -1;
    Run(entry.path().string(), std::string{std::istreambuf_iterator<char>{file}, {}});
    ++inputs;
  }
  return error ? -1 : inputs;
}

/// Runs one input a line of hexadecimal digits. Returns how many, or -1 if `path` cannot be read or holds anything
/// else.
int RunLines(const std::string& path) {
  int inputs = 0;
  std::ifstream file{path};
  if (!file) return -1;
  for (std::string line; std::getline(file, line);) {
    const std::optional<std::string> bytes = BytesOfHex(line);
    const std::string name = path + ":" + std::to_string(++inputs);
    if (!bytes) {
      std::fprintf(stderr, "%s: not hexadecimal\n", name.c_str());
      return -1;
    }
    Run(name, *bytes);
  }
  return inputs;
}

}  // namespace

/// Runs the target over every input. A finding ends the process; the input's name is then the last line but one.
int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY-OF-INPUTS|FILE-OF-HEX-LINES...\n", argv[0]);
    return 2;
  }
  int total = 0;
  for (int i = 1; i < argc; ++i) {
    const int inputs = std::filesystem::is_directory(argv[i]) ? RunDirectory(argv[i]) : RunLines(argv[i]);
    if (inputs <= 0) {
      std::fprintf(stderr, "%s: %s\n", argv[i], inputs == 0 ? "no inputs" : "cannot be read");
      return 1;
    }
    total += inputs;
  }
  std::fprintf(stderr, "%d inputs\n", total);
  return 0;
}
