#include "northbound/session.h"

#include <malloc.h>

#include <utility>

#include "netconf/xml.h"

namespace cdbd {
namespace {

using netconf::kBaseNs;
using Reason = SessionEnd::Reason;

constexpr size_t kReadBudget = size_t{1} << 20;
constexpr size_t kBigMessage = size_t{1} << 20;  // memory of larger ones goes back to the system
constexpr const char* kBase10 = "urn:ietf:params:netconf:base:1.0";
constexpr const char* kBase11 = "urn:ietf:params:netconf:base:1.1";

}  // namespace

Session::Session(common::EventLoop& loop, common::Listener::Connection connection, SessionInfo info,
                 const SessionLimits& limits, const std::string& hello, Callbacks callbacks)
    : loop_{loop},
      slot_{std::move(connection.slot)},
      info_{std::move(info)},
      limits_{limits},
      callbacks_{std::move(callbacks)},
      decoder_{limits.max_message},
      hello_timer_{loop.After(limits.hello_limit, [this] { End(Reason::kNoHello, "no hello within the time limit"); })},
      stream_{loop,
              std::move(connection.socket),
              {.read_budget = kReadBudget, .low_water = limits.max_unsent + 1},
              {.on_data =
                   [this](std::string_view bytes) {
                     decoder_.Append(bytes);
                     TakeMessages();
                   },
               .on_closed = [this](const common::CloseInfo& why) { OnClosed(why); },
               .on_drained = [this] { TakeMessages(); },
               .on_end_of_input =
                   [this] {
                     end_of_input_ = true;
                     TakeMessages();
                   }}} {
  stream_.SendWith([&](std::string* queue) { netconf::AppendFrame(netconf::Framing::kEndOfMessage, hello, queue); });
}

void Session::Reply(std::string_view message) {
  if (state_ == State::kEnded) return;
  stream_.SendWith([&](std::string* queue) { netconf::AppendFrame(decoder_.framing(), message, queue); });
  busy_ = false;
  // Not at once: the caller may be inside the callback of this very message.
  next_ = loop_.Soon([this] { TakeMessages(); });
}

void Session::Close() {
  closing_ = true;
  stream_.CloseWhenSent();
}

void Session::Kill() { End(Reason::kKilled, "killed"); }

bool Session::MayTake() const {
  return state_ != State::kEnded && !busy_ && !closing_ && stream_.Queued() <= limits_.max_unsent;
}

// A handler of the stream or of the loop: the session may be gone after each callback.
void Session::TakeMessages() {
  if (MayTake()) {
    std::string message;
    const netconf::FrameDecoder::Status status = decoder_.Next(&message);
    if (status == netconf::FrameDecoder::Status::kError) {
      return End(Reason::kBadFraming, "bad framing: " + decoder_.error());
    }
    if (status == netconf::FrameDecoder::Status::kMessage) {
      next_ = loop_.Soon([this] { TakeMessages(); });
      if (state_ == State::kOpen) {
        busy_ = true;
        stream_.SetReading(false);
        const bool big = message.size() > kBigMessage;
        const auto hand_on = callbacks_.message;  // the session may be destroyed in it
        hand_on(*this, std::move(message));
        if (big) ::malloc_trim(0);
        return;
      }
      if (!TakeHello(message)) return End(Reason::kBadHello, "bad hello");
    } else if (end_of_input_) {
      return Close();
    }
  }
  stream_.SetReading(MayTake());
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
  hello_timer_.Reset();
  state_ = State::kOpen;
  if (base_1_1) decoder_.SetFraming(netconf::Framing::kChunked);
  return true;
}

void Session::OnClosed(const common::CloseInfo& why) {
  if (why.reason == common::CloseReason::kFinished) return End(Reason::kFinished, "");
  End(Reason::kConnectionLost, why.Text());
}

void Session::End(Reason reason, std::string text) {
  if (state_ == State::kEnded) return;
  const bool greeting = state_ == State::kHello;
  state_ = State::kEnded;
  hello_timer_.Reset();
  next_.Reset();
  stream_.Close();
  // A frame that cannot be read where the hello should be is a bad hello too.
  if (greeting && reason == Reason::kBadFraming) reason = Reason::kBadHello;
  const auto ended = callbacks_.ended;  // the session may be destroyed in it
  ended(*this, {reason, std::move(text)});
}

}  // namespace cdbd
