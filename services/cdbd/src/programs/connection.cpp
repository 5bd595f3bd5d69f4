#include "programs/connection.h"

#include <utility>

namespace cdbd {

using Reason = ConnectionEnd::Reason;

Connection::Connection(common::EventLoop& loop, common::Listener::Connection accepted, uint64_t id, Callbacks callbacks)
    : slot_{std::move(accepted.slot)},
      id_{id},
      pid_{accepted.peer.pid},
      callbacks_{std::move(callbacks)},
      stream_{loop,
              std::move(accepted.socket),
              {.max_packet = confd_wire::kMaxMessage},
              {.on_packet = [this](std::string_view packet) { callbacks_.packet(*this, packet); },
               .on_closed = [this](const common::CloseInfo& why) { OnClosed(why); }}} {}

void Connection::Close(Reason reason, std::string text) {
  if (std::exchange(closed_, true)) return;
  stream_.Close();
  const auto closed = callbacks_.closed;  // the connection may be destroyed in it
  closed(*this, {reason, std::move(text)});
}

void Connection::OnClosed(const common::CloseInfo& why) {
  switch (why.reason) {
    case common::CloseReason::kPeerClosed:
      return Close(Reason::kDisconnected, "it disconnected");
    case common::CloseReason::kTooLarge:
      return Close(Reason::kNotUnderstood, "it sent a message that is too large");
    default:
      return Close(Reason::kSocketFailed, why.Text());
  }
}

}  // namespace cdbd
