#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace test {

/// A new directory, removed with everything in it.
class TempDir final {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "ip-spoofing-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace test
