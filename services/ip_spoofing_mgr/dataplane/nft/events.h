#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"

namespace mgr::nft {

/// The kernel's notifications about nf_tables in this network namespace, without those about the changes that this
/// process makes itself. Every transaction of anyone raises the generation of the ruleset by one and tells so; the
/// generation is kept, so that a lost notification is noticed.
class Events final {
 public:
  /// `own_port`: the netlink port whose changes are not told. Needs CAP_NET_ADMIN.
  static common::Result<Events> Open(uint32_t own_port);
  [[nodiscard]] int fd() const { return mnl_socket_get_fd(socket_.get()); }

  /// What others have done.
  struct Seen {
    bool unclear = false;              ///< the table may have changed: notifications were lost, or say not enough
    std::vector<std::string> changes;  ///< to the table: "2 rules added, 1 chain deleted by nft (process 123)"
  };
  /// Reads what waits. `table`: the netdev table that is asked about.
  Seen Read(const std::string& table);
  /// The generation after the last notification that was read; nothing before the first one.
  [[nodiscard]] std::optional<uint32_t> generation() const noexcept { return generation_; }
  /// The ruleset is known to be as it shall be in this generation.
  void SetGeneration(uint32_t generation) { generation_ = generation; }

 private:
  struct Close {
    void operator()(mnl_socket* socket) const noexcept { mnl_socket_close(socket); }
  };
  explicit Events(mnl_socket* socket) : socket_{socket} {}
  void OnMessage(const nlmsghdr* message, const std::string& table, Seen* seen);
  void OnGeneration(const nlmsghdr* message, Seen* seen);

  std::unique_ptr<mnl_socket, Close> socket_;
  std::optional<uint32_t> generation_;
  std::map<std::string, size_t> pending_;  ///< what a transaction does to the table, until the kernel says whose it is
};

}  // namespace mgr::nft
