#include "manager_under_test.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/paths.h"
#include "common/unix_socket.h"

namespace kernel_test {
namespace {

namespace wire = ip_spoofing_mgr::wire;
using std::chrono::seconds;

constexpr seconds kLimit{30};

Request About(const std::string& port, wire::RequestKind kind, uint8_t value) {
  Request request;
  limid_from_intfname(&request.limid, port.c_str());
  request.kind = kind;
  request.value = value;
  return request;
}

Request AboutEntry(const std::string& port, wire::RequestKind kind, uint16_t vlan, uint32_t source_be) {
  Request request = About(port, kind, 0);
  std::memcpy(request.address, &source_be, sizeof source_be);
  request.vlan = vlan;
  return request;
}

bool ReadAll(int fd, void* data, size_t size) {
  return recv(fd, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

}  // namespace

Request EnablePort(const std::string& port) { return About(port, wire::RequestKind::kPort, 1); }
Request DisablePort(const std::string& port) { return About(port, wire::RequestKind::kPort, 0); }
Request PortMode(const std::string& port, uint8_t mode) { return About(port, wire::RequestKind::kMode, mode); }
Request Put(const std::string& port, uint16_t vlan, uint32_t source_be, const frames::Mac& mac) {
  Request request = AboutEntry(port, wire::RequestKind::kPut, vlan, source_be);
  std::memcpy(request.mac, mac.data(), mac.size());
  return request;
}
Request Remove(const std::string& port, uint16_t vlan, uint32_t source_be) {
  return AboutEntry(port, wire::RequestKind::kRemove, vlan, source_be);
}

ManagerUnderTest::ManagerUnderTest(std::string dataplane)
    : dataplane_{std::move(dataplane)}, executable_{MANAGER_EXECUTABLE} {
  char dir[] = "/tmp/manager-test-XXXXXX";
  if (mkdtemp(dir) == nullptr) std::abort();
  root_ = dir;
  // The interface ids are looked up in this process too.
  setenv(common::kRunDirVariable, (root_ + "/run").c_str(), 1);
  setenv(common::kStateDirVariable, (root_ + "/state").c_str(), 1);
}

ManagerUnderTest::~ManagerUnderTest() {
  socket_.reset();
  process_.reset();
  umount2((root_ + "/run/bpf").c_str(), MNT_DETACH);
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

/// Where this was built nobody but its owner may be able to look, as below root's own directory.
void ManagerUnderTest::CopyProgram() {
  const std::filesystem::path program = root_ + "/program";
  std::filesystem::create_directory(program);
  for (const char* file : {MANAGER_EXECUTABLE, LIMID_LIBRARY, FM_LIBRARY}) {
    std::filesystem::copy(file, program, std::filesystem::copy_options::overwrite_existing);
  }
  executable_ = program / std::filesystem::path{MANAGER_EXECUTABLE}.filename();
  environment_ = {{"LD_LIBRARY_PATH", program}};
}

void ManagerUnderTest::BecomeUser(const std::vector<std::string>& capabilities) {
  CopyProgram();
  std::string set = "-all";
  for (const std::string& capability : capabilities) set += ",+" + capability;
  const std::string user{kUser};
  starter_ = {"/usr/bin/setpriv",  "--reuid=" + user,       "--regid=" + user,      "--clear-groups",
              "--inh-caps=" + set, "--ambient-caps=" + set, "--bounding-set=" + set};
}

void ManagerUnderTest::Launch(const std::vector<std::string>& options) {
  std::vector<std::string> command = starter_;
  command.insert(command.end(), {executable_, "--dataplane", dataplane_});
  command.insert(command.end(), options.begin(), options.end());
  socket_.reset();
  process_ = std::make_unique<test::ChildProcess>(command, environment_, root_ + "/manager");
}

int ManagerUnderTest::Run(const std::vector<std::string>& options) {
  Launch(options);
  return process_->Wait(kLimit).value_or(-1);
}

bool ManagerUnderTest::Start(const std::vector<std::string>& options) {
  Launch(options);
  if (test::Eventually([this] { return !process_->Running() || Connect(); }, kLimit) && process_->Running())
    return true;
  std::fprintf(stderr, "the manager does not start:\n%s", Log().c_str());
  return false;
}

void ManagerUnderTest::Kill() {
  process_->Signal(SIGKILL);
  process_->Wait(kLimit);
}

int ManagerUnderTest::Stop() {
  process_->Signal(SIGTERM);
  return process_->Wait(kLimit).value_or(-1);
}

std::string ManagerUnderTest::Log() const { return process_ ? process_->Log() : ""; }

bool ManagerUnderTest::Connect() {
  auto connected = common::ConnectUnix(common::MgrSocketPath(), SOCK_STREAM);
  if (!connected.ok()) return false;
  socket_ = std::move(connected).value();
  const timeval limit{.tv_sec = kLimit.count(), .tv_usec = 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  wire::Hello hello;
  hello.instance = static_cast<uint64_t>(getpid());
  hello.name = "kernel-test";
  if (!SendFrame(wire::FrameType::kHello, wire::EncodeHello(hello))) return false;
  const auto answer = ReceiveFrame();
  return answer && answer->first == wire::FrameType::kWelcome;
}

bool ManagerUnderTest::SendFrame(wire::FrameType type, const std::string& payload) {
  std::string bytes(sizeof(uint32_t) + 1, '\0');
  const auto size = static_cast<uint32_t>(payload.size());
  std::memcpy(bytes.data(), &size, sizeof size);
  bytes[sizeof size] = static_cast<char>(type);
  bytes += payload;
  return send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::optional<std::pair<wire::FrameType, std::string>> ManagerUnderTest::ReceiveFrame() {
  uint32_t size = 0;
  uint8_t type = 0;
  if (!ReadAll(socket_.get(), &size, sizeof size) || !ReadAll(socket_.get(), &type, sizeof type)) return std::nullopt;
  std::string payload(size, '\0');
  if (size != 0 && !ReadAll(socket_.get(), payload.data(), size)) return std::nullopt;
  return std::pair{static_cast<wire::FrameType>(type), std::move(payload)};
}

bool ManagerUnderTest::Submit(const std::vector<Request>& requests, bool full) {
  ++sequence_;
  size_t done = 0;
  do {
    const size_t count = std::min(requests.size() - done, wire::kRequestsPerFrame);
    const bool last = done + count == requests.size();
    const std::span<const Request> part{requests.data() + done, count};
    if (!SendFrame(wire::FrameType::kBatch, wire::EncodeBatchPart(sequence_, full, last, part))) return false;
    done += count;
  } while (done < requests.size());
  while (const auto frame = ReceiveFrame())
    if (frame->first == wire::FrameType::kAck && wire::ParseSequence(frame->second) == sequence_) return true;
  return false;
}

std::unique_ptr<test::ChildProcess> ManagerUnderTest::Watch(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command = {CTL_EXECUTABLE};
  command.insert(command.end(), arguments.begin(), arguments.end());
  static int run = 0;
  return std::make_unique<test::ChildProcess>(command, test::ChildProcess::Environment{},
                                              root_ + "/ctl" + std::to_string(++run));
}

std::string ManagerUnderTest::Ctl(const std::vector<std::string>& arguments) const {
  const auto process = Watch(arguments);
  process->Wait(kLimit);
  return process->Output();
}

bool ManagerUnderTest::WaitForPorts(const std::string& text) const {
  return test::Eventually([&] { return Ctl({"show", "ports", "--json"}).find(text) != std::string::npos; }, kLimit);
}

}  // namespace kernel_test
