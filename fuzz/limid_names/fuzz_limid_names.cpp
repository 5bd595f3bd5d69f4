#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "registry.h"
#include "require.h"

namespace {

using fuzz::Require;
using limid_impl::Registry;

constexpr size_t kRecord = 24, kChecked = 20;
constexpr std::string_view kHeader{"limid names, version 1\n\0", kRecord};

/// The files of this process: removed at its end.
class Folder final {
 public:
  ~Folder() { std::filesystem::remove_all(path_); }
  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  [[nodiscard]] std::string Bytes() const {
    std::ifstream file{path_ + "/names", std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
  }
  void Write(std::string_view bytes) const {
    std::filesystem::create_directories(path_);
    std::ofstream{path_ + "/names", std::ios::binary | std::ios::trunc} << bytes;
  }

 private:
  const std::string path_ = "/dev/shm/fuzz_limid_names-" + std::to_string(getpid());
};

/// Puts the right check into every whole record, so that more than the check is put to the test.
std::string Repaired(std::string_view records) {
  std::string bytes{kHeader};
  bytes += records;
  for (size_t at = kRecord; at + kRecord <= bytes.size(); at += kRecord) {
    uint32_t hash = 2166136261U;
    for (size_t i = 0; i < kChecked; ++i) hash = (hash ^ static_cast<unsigned char>(bytes[at + i])) * 16777619U;
    std::memcpy(&bytes[at + kChecked], &hash, sizeof hash);
  }
  return bytes;
}

std::vector<std::string> NamesIn(Registry& registry) {
  std::vector<std::string> names;
  for (uint32_t number = 1;; ++number) {
    const auto name = registry.Name(number);
    Require(name.ok(), "a number can be looked up");
    if (!name.value()) return names;
    Require(!name.value()->empty() && name.value()->size() <= 15, "a name has 1 to 15 bytes");
    names.push_back(*name.value());
  }
}

}  // namespace

/// The first byte: whether the rest is a whole file, or records whose checks are put right.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  if (size == 0) return 0;
  static const Folder folder;
  const std::string_view rest{reinterpret_cast<const char*>(data) + 1, size - 1};
  const std::string bytes = (data[0] & 1U) != 0 ? Repaired(rest) : std::string{rest};
  folder.Write(bytes);
  auto registry = Registry::Open(folder.path());
  if (!registry) {
    Require(folder.Bytes() == bytes, "what cannot be read is left as it is");
    return 0;
  }
  std::vector<std::string> names = NamesIn(*registry.value());
  const std::string left = folder.Bytes();
  Require(left.size() == kRecord * (names.size() + 1), "what a crash has left is gone");
  for (uint32_t place = 1; place <= names.size(); ++place)
    Require(std::memcmp(&left[place * kRecord + 16], &place, sizeof place) == 0, "a record's number is its place");
  const std::string added = "name" + std::to_string(names.size());
  const auto number = registry.value()->Intern(added);
  Require(number.ok() && number.value() >= 1 && number.value() <= names.size() + 1, "a name gets a number");
  if (number.value() == names.size() + 1) names.push_back(added);
  Require(names[number.value() - 1] == added, "of its own");
  auto again = Registry::Open(folder.path());
  Require(again.ok() && NamesIn(*again.value()) == names, "another process reads the same");
  return 0;
}
