#include "cdbd_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/unix_socket.h"

namespace cdbd::test {

CdbdProcess::CdbdProcess(std::vector<std::string> options) : options_{std::move(options)} {
  std::string pattern = (std::filesystem::temp_directory_path() / "cdbd-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
  root_ = pattern;
}

CdbdProcess::~CdbdProcess() {
  if (::testing::Test::HasFailure()) std::fprintf(stderr, "--- log of cdbd\n%s---\n", Log().c_str());
  process_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

void CdbdProcess::Spawn() {
  std::vector<std::string> command{CDBD_EXECUTABLE, "--run-dir", RunDir(), "--state-dir",
                                   StateDir(),      "--models",  models_};
  command.insert(command.end(), options_.begin(), options_.end());
  command.insert(command.end(), extra_options_.begin(), extra_options_.end());
  process_ = std::make_unique<ChildProcess>(command, ChildProcess::Environment{}, root_ + "/cdbd");
}

void CdbdProcess::Start() {
  Spawn();
  const bool listens = Eventually(
      [this] { return !process_->Running() || common::ConnectUnix(CdbSocket(), SOCK_SEQPACKET).ok(); }, kLimit);
  ASSERT_TRUE(listens && process_->Running()) << Log();
}

int CdbdProcess::RunToEnd() {
  Spawn();
  return process_->Wait(kLimit).value_or(-1);
}

int CdbdProcess::Stop() {
  process_->Signal(SIGTERM);
  return process_->Wait(kLimit).value_or(-1);
}

void CdbdProcess::Kill() {
  process_->Signal(SIGKILL);
  process_->Wait(kLimit);
}

std::string CdbdProcess::Log() const {
  std::ostringstream text;
  text << std::ifstream{root_ + "/cdbd.err"}.rdbuf();
  return text.str();
}

std::string AntiSpoofing(const std::string& content, const std::string& attributes) {
  return "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing" + attributes + ">" + content +
         "</anti-ip-spoofing></config>";
}

std::string Interfaces(const std::vector<std::string>& names) {
  std::string content;
  for (const std::string& name : names)
    content += "<interface><interface-name>" + name + "</interface-name></interface>";
  return AntiSpoofing(content);
}

}  // namespace cdbd::test
