#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>

#include "input.h"

/// One seed per reason, row, mode and kind of tag: enough for the fuzzer to start from, few enough to keep.
int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  std::filesystem::create_directories(argv[1]);
  std::map<std::string, frames::Bytes> seeds;
  for (const frames::VerdictRow& row : frames::VerdictCorpus()) {
    if (!row.enabled || row.frame.bytes.size() > 128) continue;
    const std::string name = std::to_string(row.row) + "-" + std::to_string(row.reason) + "-" +
                             std::to_string(row.mode) + (row.frame.metadata_tag ? "-tag" : "");
    seeds.try_emplace(name, fuzz::Encode({row.mode, false, row.frame}));
  }
  for (const auto& [name, bytes] : seeds) {
    std::ofstream file{std::filesystem::path{argv[1]} / name, std::ios::binary};
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  return 0;
}
