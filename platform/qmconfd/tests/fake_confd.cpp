#include "fake_confd.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "common/paths.h"
#include "common/unix_socket.h"

namespace {

FakeConfd* the_fake = nullptr;
confd_daemon_ctx the_daemon{};

}  // namespace

FakeConfd& TheFake() { return *the_fake; }

FakeConfd::FakeConfd() { the_fake = this; }
FakeConfd::~FakeConfd() {
  Stop();
  the_fake = nullptr;
}

void FakeConfd::Start() {
  ASSERT_TRUE(common::EnsureDir(common::RunDir()));
  auto listener = common::ListenUnix(common::CdbSocketPath(), SOCK_SEQPACKET, 0600);
  ASSERT_TRUE(listener) << listener.error().Text();
  listener_ = std::move(listener).value();
}

void FakeConfd::Stop() {
  listener_.reset();
  peers.clear();
  older_.clear();
  std::filesystem::remove(common::CdbSocketPath());
}

void FakeConfd::Send(const std::string& which) { EXPECT_EQ(::write(peers.at(which).get(), "m", 1), 1) << which; }

bool FakeConfd::Fails(const std::string& call) {
  int& left = fail[call];
  if (left == 0) return false;
  --left;
  return true;
}

int FakeConfd::Accept(int sock, const sockaddr* address, int size, const std::string& which) {
  trace.push_back("connect " + which);
  if (Fails(which) || ::connect(sock, address, static_cast<socklen_t>(size)) != 0) return CONFD_ERR;
  older_.push_back(std::move(peers[which]));
  peers[which] = common::AcceptUnix(listener_.get()).value();
  return CONFD_OK;
}

extern "C" {

int confd_errno = 0;
const char* confd_lasterr(void) { return "the library's text"; }

confd_daemon_ctx* confd_init_daemon(const char* name) {
  TheFake().trace.push_back(std::string("init daemon ") + name);
  return TheFake().Fails("init daemon") ? nullptr : &the_daemon;
}

void confd_release_daemon(confd_daemon_ctx* dctx) {
  EXPECT_EQ(dctx, &the_daemon);
  if (the_fake != nullptr) TheFake().trace.emplace_back("release daemon");
}

int confd_connect(confd_daemon_ctx* dctx, int sock, confd_sock_type type, const sockaddr* srv, int srv_size) {
  EXPECT_EQ(dctx, &the_daemon);
  return TheFake().Accept(sock, srv, srv_size, type == CONTROL_SOCKET ? "control" : "worker");
}

int confd_fd_ready(confd_daemon_ctx* dctx, int fd) {
  EXPECT_EQ(dctx, &the_daemon);
  char byte = 0;
  if (::read(fd, &byte, 1) != 1) return CONFD_EOF;
  if (TheFake().on_ready.empty()) return CONFD_OK;
  const auto action = TheFake().on_ready.front();
  TheFake().on_ready.pop_front();
  return action();
}

int cdb_connect_name(int sock, cdb_sock_type type, const sockaddr* srv, int srv_size, const char* name) {
  const std::string which = type == CDB_READ_SOCKET ? "read" : "subscription";
  const int result = TheFake().Accept(sock, srv, srv_size, which);
  TheFake().trace.back() += std::string(" as ") + name;
  return result;
}

int cdb_close(int sock) {
  if (the_fake != nullptr) TheFake().trace.emplace_back("cdb_close");
  return ::close(sock) == 0 ? CONFD_OK : CONFD_ERR;
}

int cdb_start_session(int, cdb_db_type db) {
  TheFake().trace.push_back("start session " + std::to_string(db));
  return TheFake().Fails("start session") ? CONFD_ERR : CONFD_OK;
}

int cdb_end_session(int) {
  TheFake().trace.emplace_back("end session");
  return TheFake().Fails("end session") ? CONFD_ERR : CONFD_OK;
}

int cdb_set_timeout(int, int seconds) {
  TheFake().trace.push_back("set timeout " + std::to_string(seconds));
  return TheFake().Fails("set timeout") ? CONFD_ERR : CONFD_OK;
}
}
