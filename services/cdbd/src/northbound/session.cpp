#include "northbound/session.h"

#include <malloc.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "netconf/xml.h"

namespace cdbd {
namespace {

using netconf::kBaseNs;

constexpr size_t kReadSize = 65536;
constexpr int kReadsPerTurn = 16;        // then the others have their turn
constexpr size_t kBigMessage = 1 << 20;  // memory of larger ones goes back to the system
constexpr const char* kBase10 = "urn:ietf:params:netconf:base:1.0";
constexpr const char* kBase11 = "urn:ietf:params:netconf:base:1.1";

}  // namespace

Session::Session(common::EventLoop& loop, common::UniqueFd fd, SessionInfo info, const SessionLimits& limits,
                 const std::string& hello, Callbacks callbacks)
    : loop_{loop},
      fd_{std::move(fd)},
      info_{std::move(info)},
      limits_{limits},
      callbacks_{std::move(callbacks)},
      decoder_{limits.max_message} {
  netconf::AppendFrame(netconf::Framing::kEndOfMessage, hello, &unsent_);
  watched_ = EPOLLIN | EPOLLOUT;
  loop_.AddFd(fd_.get(), watched_, [this](uint32_t events) { OnEvents(events); });
  hello_timer_ = loop_.AddTimer(limits_.hello_limit, [this] {
    hello_timer_ = 0;
    callbacks_.bad_hello();
    End("no hello within the time limit");
  });
}

Session::~Session() {
  *alive_ = false;
  if (state_ != State::kEnded) loop_.RemoveFd(fd_.get());
  loop_.CancelTimer(hello_timer_);
}

void Session::Reply(std::string_view message) {
  if (state_ == State::kEnded) return;
  netconf::AppendFrame(decoder_.framing(), message, &unsent_);
  busy_ = false;
  const std::shared_ptr<bool> alive = alive_;
  Send();
  if (*alive && state_ != State::kEnded) TakeMessages();
}

void Session::Close() {
  closing_ = true;
  if (sent_ == unsent_.size()) End("");
}

void Session::Abort(const std::string& why) { End(why); }

void Session::OnEvents(uint32_t events) {
  const std::shared_ptr<bool> alive = alive_;
  if ((events & EPOLLOUT) != 0) Send();
  if (!*alive || state_ == State::kEnded) return;
  bool more = true;
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !end_of_input_) more = ReadSome();
  if (!more) return;
  TakeMessages();
  if (!*alive || state_ == State::kEnded) return;
  // Nobody is left to read what is under way.
  if ((events & (EPOLLHUP | EPOLLERR)) != 0 && end_of_input_) return End("the peer closed the connection");
  Watch();
}

// False when the session has ended.
bool Session::ReadSome() {
  static std::array<char, kReadSize> buffer;  // one loop thread
  for (int i = 0; i < kReadsPerTurn; ++i) {
    const ssize_t got = ::recv(fd_.get(), buffer.data(), buffer.size(), 0);
    if (got > 0) {
      decoder_.Append({buffer.data(), static_cast<size_t>(got)});
      if (static_cast<size_t>(got) < buffer.size() || busy_) break;
    } else if (got == 0) {
      end_of_input_ = true;
      break;
    } else if (errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      End(std::string{"receive: "} + std::strerror(errno));
      return false;
    }
  }
  return true;
}

void Session::TakeMessages() {
  if (taking_) return;  // Reply() from inside the callback: the loop below goes on
  taking_ = true;
  const std::shared_ptr<bool> alive = alive_;
  std::string message;
  while (!busy_ && !closing_ && unsent_.size() - sent_ <= limits_.max_unsent) {
    const netconf::FrameDecoder::Status status = decoder_.Next(&message);
    if (status == netconf::FrameDecoder::Status::kNeedMore) break;
    if (status == netconf::FrameDecoder::Status::kError) {
      if (state_ == State::kHello) callbacks_.bad_hello();
      return End("bad framing: " + decoder_.error());
    }
    if (state_ == State::kHello) {
      if (!TakeHello(message)) {
        callbacks_.bad_hello();
        return End("bad hello");
      }
      continue;
    }
    busy_ = true;
    const bool big = message.size() > kBigMessage;
    callbacks_.message(*this, std::move(message));
    if (big) malloc_trim(0);
    if (!*alive || state_ == State::kEnded) return;
    std::string{}.swap(message);
  }
  taking_ = false;
  if (end_of_input_ && !busy_ && !closing_) {
    Close();
    if (!*alive || state_ == State::kEnded) return;
  }
  Watch();
}

bool Session::TakeHello(const std::string& message) {
  const auto document = netconf::XmlDocument::Parse(message);
  if (!document) return false;
  const netconf::XmlElement& root = document.value()->root();
  if (!root.Is(kBaseNs, "hello") || root.Child(kBaseNs, "session-id") != nullptr) return false;
  const netconf::XmlElement* list = root.Child(kBaseNs, "capabilities");
  if (list == nullptr) return false;
  bool base_1_0 = false;
  bool base_1_1 = false;
  for (const netconf::XmlElement* c = list->first_child; c != nullptr; c = c->next) {
    if (!c->Is(kBaseNs, "capability")) return false;
    base_1_0 |= netconf::Trim(c->text) == kBase10;
    base_1_1 |= netconf::Trim(c->text) == kBase11;
  }
  if (!base_1_0 && !base_1_1) return false;
  loop_.CancelTimer(hello_timer_);
  hello_timer_ = 0;
  state_ = State::kOpen;
  if (base_1_1) decoder_.SetFraming(netconf::Framing::kChunked);
  return true;
}

void Session::Send() {
  while (sent_ < unsent_.size()) {
    const ssize_t sent = ::send(fd_.get(), unsent_.data() + sent_, unsent_.size() - sent_, MSG_NOSIGNAL);
    if (sent > 0) {
      sent_ += static_cast<size_t>(sent);
    } else if (errno == EAGAIN) {
      Watch();
      return;
    } else if (errno != EINTR) {
      return End(std::string{"send: "} + std::strerror(errno));
    }
  }
  const bool big = unsent_.capacity() > kBigMessage;
  std::string{}.swap(unsent_);  // an assignment would keep the memory
  sent_ = 0;
  if (big) malloc_trim(0);
  if (closing_) return End("");
  Watch();
}

void Session::Watch() {
  if (state_ == State::kEnded) return;
  const size_t pending = unsent_.size() - sent_;
  // A peer that has a request open, or does not take its answers, is not read.
  const bool read = !end_of_input_ && !closing_ && pending <= limits_.max_unsent && !busy_;
  const uint32_t wanted = (read ? EPOLLIN : 0U) | (pending > 0 ? EPOLLOUT : 0U);
  if (wanted == watched_) return;
  watched_ = wanted;
  loop_.ModifyFd(fd_.get(), wanted);
}

void Session::End(const std::string& why) {
  if (state_ == State::kEnded) return;
  state_ = State::kEnded;
  loop_.CancelTimer(hello_timer_);
  hello_timer_ = 0;
  loop_.RemoveFd(fd_.get());
  fd_.reset();
  const auto ended = callbacks_.ended;
  ended(*this, why);
}

}  // namespace cdbd
