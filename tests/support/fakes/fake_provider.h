/// @file fake_provider.h
/// The data-provider side: what was registered, and every reply as a line.
///
/// Lines: "reply 7 key int64:0 next 1", "reply 7 end", "reply 7 row 1c4b7396=enum:0 4b843099=ipv4:10.0.0.1 ..." (the
/// number is the transaction's; values in the order they were given).
/// Scripted answers: "confd_register_trans_cb", "confd_register_data_cb", "confd_register_done", "confd_trans_set_fd".
#pragma once

#include <map>
#include <memory>
#include <optional>

#include "confd_dp.h"

namespace fakes {

class Provider {
 public:
  /// The context of the transaction with that number, made on first use.
  confd_trans_ctx* Transaction(int thandle);

  confd_daemon_ctx daemon = {nullptr, "ip-spoofing-app", nullptr};
  std::optional<confd_trans_cbs> trans_cbs;
  std::optional<confd_data_cbs> data_cbs;

 private:
  std::map<int, std::unique_ptr<confd_trans_ctx>> transactions_;
};

Provider& TheProvider();

}  // namespace fakes
