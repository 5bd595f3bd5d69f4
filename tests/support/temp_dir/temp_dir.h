#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace test {

/// A new directory, removed with everything in it.
class TempDir final {
 public:
  TempDir() : path_{(std::filesystem::temp_directory_path() / "ip-spoofing-test-XXXXXX").string()} {
    if (::mkdtemp(path_.data()) == nullptr) std::abort();
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

}  // namespace test
