#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/event_loop.h"
#include "common/result.h"
#include "engine/engine.h"

namespace mgr {

/// The interfaces of this network namespace, as rtnetlink(7) tells. Loop thread only.
class LinkWatcher final : public Interfaces {
 public:
  /// Called with the names that have another index than before: appeared, vanished, created again, renamed (both
  /// names); and with alternative names that were given or taken. The kernel tells of the latter while the interface is
  /// up, and otherwise when it comes up.
  using OnChanged = std::function<void(const std::vector<std::string>& names)>;

  /// Reads the present interfaces, and watches them from now on.
  static common::Result<std::unique_ptr<LinkWatcher>> Open(common::EventLoop& loop, OnChanged on_changed);
  LinkWatcher(const LinkWatcher&) = delete;
  LinkWatcher& operator=(const LinkWatcher&) = delete;
  ~LinkWatcher() override;

  [[nodiscard]] uint32_t IndexOf(const std::string& name) const override;
  [[nodiscard]] std::string MainNameOf(const std::string& name) const override;

 private:
  struct Names {
    std::string main;
    std::set<std::string> alternatives;
    bool operator==(const Names&) const = default;
  };
  struct Message {
    Names names;
    bool partial = false;
  };
  struct CloseSocket {
    void operator()(mnl_socket* socket) const noexcept { mnl_socket_close(socket); }
  };
  using Socket = std::unique_ptr<mnl_socket, CloseSocket>;

  LinkWatcher(OnChanged on_changed, Socket socket);
  common::Status Dump();
  int DumpOnce();
  void OnReadable();
  static int OnMessage(const nlmsghdr* message, void* self);
  static int OnAttribute(const nlattr* attribute, void* data);
  void Set(uint32_t ifindex, Names names);
  void Gone(uint32_t ifindex);
  void Forget(std::unordered_map<std::string, uint32_t>* index, const std::string& name, uint32_t ifindex);

  const OnChanged on_changed_;
  const Socket socket_;
  std::map<uint32_t, Names> names_of_;
  std::unordered_map<std::string, uint32_t> index_of_;
  std::unordered_map<std::string, uint32_t> index_of_alternative_;
  std::set<uint32_t> seen_;  ///< by the running dump
  std::set<std::string> changed_;
  common::FdWatch watch_;
};

/// For trials without interfaces: every name has one.
class AssumedInterfaces final : public Interfaces {
 public:
  [[nodiscard]] uint32_t IndexOf(const std::string& name) const override { return name.empty() ? 0 : 1; }
  [[nodiscard]] std::string MainNameOf(const std::string&) const override { return ""; }
};

}  // namespace mgr
