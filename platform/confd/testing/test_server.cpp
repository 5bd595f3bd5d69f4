#include "confd_testing/test_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "common/unix_socket.h"
#include "test_server_process.h"

namespace confd_testing {
namespace {

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "test server (test's side): %s\n", what);
  std::abort();
}

/// The next packet; ends the test when none comes in time or the server is gone.
std::string ReadInTime(int fd) {
  static std::array<char, 256 * 1024> buffer;
  pollfd poll_fd{.fd = fd, .events = POLLIN, .revents = 0};
  if (poll(&poll_fd, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) != 1) Die("no answer in time");
  const ssize_t size = recv(fd, buffer.data(), buffer.size(), 0);
  if (size <= 0) Die("the server is gone");
  return {buffer.data(), static_cast<size_t>(size)};
}

}  // namespace

TestServer::TestServer(cdb_store::Schema schema) : schema_{std::move(schema)} { Start(); }

TestServer::~TestServer() {
  if (pid_ > 0) Kill();
}

sockaddr_un TestServer::address() const { return common::UnixAddress(dir_.path() + "/socket").value(); }

void TestServer::Start() {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) Die("socketpair");
  pid_ = fork();
  if (pid_ < 0) Die("fork");
  if (pid_ == 0) {
    close(pair[0]);
    control_.reset();
    RunServer(schema_, dir_.path(), dir_.path() + "/socket", pair[1]);
  }
  close(pair[1]);
  control_.reset(pair[0]);
  Command("B");
  Answer('B');  // listening from here on
}

void TestServer::Kill() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void TestServer::Restart() {
  if (pid_ > 0) Kill();
  packets_.clear();
  Start();
}

void TestServer::Command(const std::string& command) {
  if (send(control_.get(), command.data(), command.size(), MSG_NOSIGNAL) < 0) Die("the server is gone");
}

std::string TestServer::Answer(char wanted) {
  while (true) {
    std::string packet = ReadInTime(control_.get());
    if (packet[0] == wanted) return packet;
    Keep(packet);
  }
}

uint64_t TestServer::Commit(const std::vector<Edit>& edits, bool bulk) {
  for (const Edit& edit : edits) {
    common::ByteWriter out;
    out.Put(edit.kind == Edit::Kind::kPut ? 'P' : 'R');
    out.PutString(edit.path);
    out.PutString(edit.value);
    Command(out.data());
  }
  common::ByteWriter out;
  out.Put('C');
  out.Put(static_cast<uint8_t>(bulk));
  Command(out.data());
  const std::string answer = Answer('T');
  common::ByteReader in(std::string_view(answer).substr(1));
  const auto txid = in.Get<uint64_t>();
  triggered_.clear();
  for (uint32_t n = in.Get<uint32_t>(); n > 0; --n) triggered_.push_back(in.Get<int32_t>());
  return txid;
}

void TestServer::RefuseHello(const std::string& text) {
  common::ByteWriter out;
  out.Put('E');
  out.PutString(text);
  Command(out.data());
}

void TestServer::SendBytes(uint64_t connection, const std::string& bytes) {
  common::ByteWriter out;
  out.Put('S');
  out.Put(connection);
  out.PutString(bytes);
  Command(out.data());
}

void TestServer::Close(uint64_t connection) {
  common::ByteWriter out;
  out.Put('X');
  out.Put(connection);
  Command(out.data());
  Command("B");
  Answer('B');
}

void TestServer::Keep(std::string_view received) {
  common::ByteReader in(received);
  in.Get<char>();
  const auto connection = in.Get<uint64_t>();
  packets_.push_back({connection, std::string{in.GetString()}});
}

Packet TestServer::Receive() {
  while (packets_.empty()) {
    const std::string packet = ReadInTime(control_.get());
    if (packet[0] != 'M') Die("unexpected answer");
    Keep(packet);
  }
  Packet packet = std::move(packets_.front());
  packets_.pop_front();
  return packet;
}

bool TestServer::IsQuiet() {
  Command("B");
  Answer('B');
  return packets_.empty();
}

}  // namespace confd_testing
