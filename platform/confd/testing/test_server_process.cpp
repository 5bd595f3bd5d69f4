#include "test_server_process.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>

#include "cdb_store/store_writer.h"
#include "cdb_store_testing/tree.h"
#include "common/byte_io.h"
#include "common/unique_fd.h"
#include "common/unix_socket.h"
#include "confd_wire/codec.h"

namespace confd_testing {
namespace {

using namespace confd_wire;

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "test server: %s\n", what.c_str());
  std::_Exit(3);
}

/// One packet; nothing at the end of the connection.
std::optional<std::string> ReadPacket(int fd) {
  static char buffer[256 * 1024];
  const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
  if (size <= 0) return std::nullopt;
  return std::string(buffer, static_cast<size_t>(size));
}

class Server final {
 public:
  Server(cdb_store::Schema schema, const std::string& dir, const std::string& socket_path, int control)
      : store_path_{dir}, control_{control} {
    auto store = cdb_store::StoreWriter::Open({.path = dir, .durable = false}, std::move(schema), "test-server");
    if (!store) Die(store.error().Text());
    store_ = std::move(store).value();
    auto listener = common::ListenUnix(socket_path, SOCK_SEQPACKET, 0600);
    if (!listener) Die(listener.error().Text());
    listener_ = std::move(listener).value();
  }

  void Run() {
    while (true) {
      std::vector<pollfd> fds = {{control_, POLLIN, 0}, {listener_.get(), POLLIN, 0}};
      std::vector<uint64_t> ids;
      for (const auto& [id, fd] : clients_) {
        fds.push_back({fd.get(), POLLIN, 0});
        ids.push_back(id);
      }
      if (poll(fds.data(), fds.size(), -1) < 0) Die("poll");
      // Clients first, so that the test's barrier comes after all that they sent.
      for (size_t i = 0; i < ids.size(); ++i) {
        if (fds[i + 2].revents != 0) ReadClient(ids[i]);
      }
      if (fds[1].revents != 0) Accept();
      if (fds[0].revents != 0) ReadCommand();
    }
  }

 private:
  void Accept() {
    auto client = common::AcceptUnix(listener_.get());
    if (client && client.value()) clients_[++last_id_] = std::move(client).value();
  }

  void ReadClient(uint64_t id) {
    const std::optional<std::string> packet = ReadPacket(clients_[id].get());
    if (!packet) {
      clients_.erase(id);
      Tell(id, "");
      return;
    }
    Tell(id, *packet);
    if (const auto hello = Decode<Hello>(*packet)) {
      HelloReply reply;
      reply.error = refusal_;
      reply.store_path = store_path_;
      reply.server_instance = static_cast<uint64_t>(getpid());
      reply.id = id;
      Reply(id, reply);
    } else if (const auto subscribe = Decode<Subscribe>(*packet)) {
      points_[++last_point_] = {subscribe->node, subscribe->keys};
      Reply(id, SubscribeReply{"", last_point_});
    } else if (Decode<SubscribeDone>(*packet)) {
      Reply(id, SubscribeDoneReply{});
    } else if (Decode<Register>(*packet)) {
      Reply(id, RegisterReply{});
    }
  }

  template <class M>
  void Reply(uint64_t id, const M& message) {
    SendTo(id, Encode(message));
  }
  void SendTo(uint64_t id, std::string_view bytes) {
    const auto found = clients_.find(id);
    if (found != clients_.end()) send(found->second.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

  void Tell(uint64_t id, const std::string& packet) {
    common::ByteWriter out;
    out.Put('M');
    out.Put(id);
    out.PutString(packet);
    if (send(control_, out.data().data(), out.data().size(), MSG_NOSIGNAL) < 0) std::_Exit(0);
  }

  cdb_store::WriteTxn& Txn() {
    if (!txn_) {
      auto txn = store_->Begin();
      if (!txn) Die(txn.error().Text());
      txn_.emplace(std::move(txn).value());
    }
    return *txn_;
  }

  std::vector<int32_t> Triggered() {
    std::vector<int32_t> triggered;
    const std::vector<cdb_store::OwnedChange> changes = Txn().Changes().value();
    for (const auto& subscription : points_) {
      const auto touches = [&](const cdb_store::OwnedChange& change) {
        return cdb_store::Triggers(store_->schema(), subscription.second, change.view());
      };
      if (std::ranges::any_of(changes, touches)) triggered.push_back(subscription.first);
    }
    return triggered;
  }

  void ReadCommand() {
    const std::optional<std::string> packet = ReadPacket(control_);
    if (!packet) std::_Exit(0);
    common::ByteReader in(*packet);
    switch (in.Get<char>()) {
      case 'P': {
        const std::string path(in.GetString());
        cdb_store::testing::Put(Txn(), path, in.GetString());
        break;
      }
      case 'R':
        cdb_store::testing::Remove(Txn(), in.GetString());
        break;
      case 'C': {
        const auto kind = in.Get<uint8_t>() != 0 ? cdb_store::CommitKind::kBulk : cdb_store::CommitKind::kNormal;
        const std::vector<int32_t> triggered = Triggered();
        const auto txid = Txn().Commit(kind);
        if (!txid) Die(txid.error().Text());
        txn_.reset();
        common::ByteWriter out;
        out.Put('T');
        out.Put(txid.value().number);
        out.Put(static_cast<uint32_t>(triggered.size()));
        for (const int32_t point : triggered) out.Put(point);
        send(control_, out.data().data(), out.data().size(), MSG_NOSIGNAL);
        break;
      }
      case 'E':
        refusal_ = in.GetString();
        break;
      case 'S': {
        const auto id = in.Get<uint64_t>();
        SendTo(id, in.GetString());
        break;
      }
      case 'X':
        clients_.erase(in.Get<uint64_t>());
        break;
      case 'B':
        send(control_, "B", 1, MSG_NOSIGNAL);
        break;
      default:
        Die("unknown command");
    }
  }

  std::string store_path_;
  int control_;
  std::unique_ptr<cdb_store::StoreWriter> store_;
  std::optional<cdb_store::WriteTxn> txn_;
  common::UniqueFd listener_;
  std::map<uint64_t, common::UniqueFd> clients_;
  uint64_t last_id_ = 0;
  int32_t last_point_ = 0;
  std::map<int32_t, cdb_store::SubscriptionTarget> points_;
  std::string refusal_;
};

}  // namespace

void RunServer(cdb_store::Schema schema, const std::string& dir, const std::string& socket_path, int control) {
  Server(std::move(schema), dir, socket_path, control).Run();
  std::_Exit(0);
}

}  // namespace confd_testing
