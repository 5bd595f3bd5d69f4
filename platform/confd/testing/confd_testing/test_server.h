#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cdb_store/schema.h"
#include "common/unique_fd.h"
#include "confd_wire/codec.h"
#include "temp_dir/temp_dir.h"

/// A server for tests of the client library: a process of its own that owns a store, answers hello, subscribe and
/// register by itself, and leaves everything else to the test, which sends and receives packets through it.
namespace confd_testing {

struct Edit {
  enum class Kind : uint8_t { kPut, kRemove };
  Kind kind = Kind::kPut;
  std::string path;
  std::string value;
};
inline Edit Put(std::string path, std::string value = "") {
  return {Edit::Kind::kPut, std::move(path), std::move(value)};
}
inline Edit Remove(std::string path) { return {Edit::Kind::kRemove, std::move(path), ""}; }

/// A message of a client.
struct Packet {
  uint64_t connection = 0;
  std::string bytes;  ///< empty: the connection was closed
};

/// Every wait ends the test process with a message after this long.
inline constexpr std::chrono::seconds kPatience{20};

class TestServer final {
 public:
  explicit TestServer(cdb_store::Schema schema);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  [[nodiscard]] sockaddr_un address() const;
  [[nodiscard]] const std::string& store_path() const noexcept { return dir_.path(); }
  [[nodiscard]] pid_t pid() const noexcept { return pid_; }

  /// One commit; its number. `bulk`: no difference.
  uint64_t Commit(const std::vector<Edit>& edits, bool bulk = false);
  /// Points of any connection that the last commit triggers, rising. Nothing is sent by itself.
  [[nodiscard]] const std::vector<int32_t>& triggered() const noexcept { return triggered_; }
  /// Every later hello is refused with this text; "" accepts again.
  void RefuseHello(const std::string& text);

  void SendBytes(uint64_t connection, const std::string& bytes);
  template <class M>
  void Send(uint64_t connection, const M& message) {
    SendBytes(connection, confd_wire::Encode(message));
  }
  void Close(uint64_t connection);
  /// The next message of any client, in order of arrival.
  Packet Receive();
  /// The next message of this type; others are skipped. Its connection in `connection`.
  template <class M>
  M Expect(uint64_t* connection = nullptr) {
    while (true) {
      const Packet packet = Receive();
      if (auto message = confd_wire::Decode<M>(packet.bytes)) {
        if (connection != nullptr) *connection = packet.connection;
        return *std::move(message);
      }
    }
  }
  /// Nothing is waiting from any client once the server has handled all that was sent so far.
  bool IsQuiet();

  void Kill();     ///< SIGKILL, and waits
  void Restart();  ///< a new server on the same store and socket

 private:
  void Start();
  void Command(const std::string& command);
  std::string Answer(char wanted);
  void Keep(std::string_view received);

  cdb_store::Schema schema_;
  test::TempDir dir_;
  common::UniqueFd control_;
  pid_t pid_ = -1;
  std::deque<Packet> packets_;
  std::vector<int32_t> triggered_;
};

}  // namespace confd_testing
