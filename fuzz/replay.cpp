#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "require.h"

/// Runs the target over every file of a corpus. A finding ends the process; the file's name is then the last line.
int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS\n", argv[0]);
    return 2;
  }
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator{argv[1]}) {
    std::fprintf(stderr, "%s\n", entry.path().c_str());
    std::ifstream file{entry.path(), std::ios::binary};
    const std::string bytes{std::istreambuf_iterator<char>{file}, {}};
    // A copy that ends where its allocation ends.
    const auto copy = std::make_unique<unsigned char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
    ++files;
  }
  std::fprintf(stderr, "%d inputs\n", files);
  return files > 0 ? 0 : 1;
}
