// Which names the operator's model takes for an interface.
#include <gtest/gtest.h>

#include <algorithm>

#include "model/leaf_value.h"
#include "store_fixture.h"

namespace cdbd::test {
namespace {

/// The rule in other words: a name that an interface can have on Linux, of ASCII characters, without those that
/// programs take for markup.
bool IsAllowed(const std::string& name) {
  if (name.empty() || name.size() > 15 || name == "." || name == "..") return false;
  return std::none_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) >= 0x80 || std::string_view{" \t\r\n\"'{}[]/\\%"}.find(c) != std::string::npos;
  });
}

/// Every text of at most `length` of `letters`.
std::vector<std::string> Texts(const std::vector<std::string>& letters, size_t length) {
  std::vector<std::string> all{""};
  for (size_t from = 0; length > 0; --length) {
    const size_t to = all.size();
    for (; from < to; ++from)
      for (const std::string& letter : letters) all.push_back(all[from] + letter);
  }
  return all;
}

TEST(InterfaceName, IsWhatAnInterfaceCanBeCalled) {
  const StoreFixture fixture{"anti-ip-spoofing"};
  const cdb_store::Schema& schema = fixture.model->schema();
  const cdb_store::Node* leaf = &schema.root();
  for (const char* name : {"config", "anti-ip-spoofing", "interface", "interface-name"})
    leaf = schema.FindChild(*leaf, name);
  ASSERT_NE(leaf, nullptr);

  std::vector<std::string> names = Texts({".", "a", "-", "7", " ", "\n", "/", "\"", "%", "\xc3\xa9"}, 4);
  for (size_t size = 1; size <= 17; ++size)
    for (const char letter : {'.', 'a'}) names.emplace_back(size, letter);
  for (int c = 0x20; c < 0x7f; ++c)
    for (const char* dots : {"", ".", ".."}) names.push_back(std::string{dots} + static_cast<char>(c));
  for (const std::string& name : names) {
    DataError error;
    EXPECT_EQ(CanonicalValue(*fixture.model, *leaf, name, &error).has_value(), IsAllowed(name)) << name;
  }
}

}  // namespace
}  // namespace cdbd::test
