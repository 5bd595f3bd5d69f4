#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <string>
#include <vector>

#include "cdbd_process.h"
#include "program.h"

/// A data provider that is spoken for message by message, and a reader of its list.
namespace cdbd::test {

using cdb_store::StoreInt;
using cdb_store::ValueType;
using confd_wire::ClientKind;
using confd_wire::ReadRows;

inline constexpr const char* kCallpoint = "show-allowed-ip";
inline constexpr const char* kFilter = "<state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing/></state>";
inline const std::string kOpen = "<state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing>";
inline const std::string kClose = "</anti-ip-spoofing></state>";

enum Tag : uint32_t {
  kMac = 0x1c4b7396,
  kAddress = 0x4b843099,
  kVlan = 0x0442b85d,
  kState = 0x3363fe59,
  kInterface = 0x0d34ee32,
  kFiltering = 0x74470328
};

inline confd_wire::TagValue Enum(uint32_t tag, int32_t value) { return {tag, 0, {ValueType::kEnum, StoreInt(value)}}; }
inline confd_wire::TagValue Bytes(uint32_t tag, ValueType type, const std::string& bytes) {
  return {tag, 0, {type, bytes}};
}
inline confd_wire::TagValue Number(uint32_t tag, uint32_t value) {
  return {tag, 0, {ValueType::kUint32, StoreInt(value)}};
}

using Values = std::vector<confd_wire::TagValue>;
inline Values Row(const std::string& interface, char last_octet) {
  return {Enum(kMac, 0),
          Bytes(kAddress, ValueType::kIpv4, std::string{10, 0, 0, last_octet}),
          Number(kVlan, 7),
          Enum(kState, 1),
          Bytes(kInterface, ValueType::kString, interface),
          Enum(kFiltering, 1)};
}
inline std::string RowText(int position, const std::string& interface, int last_octet) {
  return "<allowed-ip><position>" + std::to_string(position) + "</position><mac>any</mac><address>10.0.0." +
         std::to_string(last_octet) + "</address><vlan>7</vlan><state>in-force</state><interface>" + interface +
         "</interface><filtering>on</filtering></allowed-ip>";
}

using Keys = std::vector<confd_wire::Value>;
inline Keys Key(int64_t key) { return {{ValueType::kInt64, StoreInt(key)}}; }

/// A data provider: a control and a worker connection.
class Provider final {
 public:
  explicit Provider(CdbdProcess& server, const std::string& name = "app")
      : control{server.CdbSocket(), ClientKind::kControl, name},
        worker{server.CdbSocket(), ClientKind::kWorker, name, control.hello.id} {}

  std::string Register(const std::string& callpoint = kCallpoint, bool get_object = true) {
    confd_wire::Register message;
    message.callpoints.push_back({callpoint, true, get_object});
    control.Send(message);
    const auto reply = control.Receive<confd_wire::RegisterReply>();
    return reply ? reply->error : "no reply";
  }
  /// Takes the next transaction on; its number.
  int32_t Accept() {
    const auto init = control.Receive<confd_wire::TransInit>();
    if (!init) return 0;
    confd_wire::TransInitReply reply;
    reply.thandle = init->thandle;
    reply.worker_id = worker.hello.id;
    control.Send(reply);
    return init->thandle;
  }
  /// Answers with rows `first`, `first` + 1 and so on; the list continues after them, or not.
  void Answer(uint64_t request, int64_t first, const std::vector<Values>& rows, bool end) {
    confd_wire::Rows page{request, {}, end, first + static_cast<int64_t>(rows.size())};
    for (const Values& values : rows) page.rows.push_back({test::Key(first++), values});
    worker.Send(page);
  }
  void End(uint64_t request) { Answer(request, 0, {}, true); }
  /// The next request for rows.
  ReadRows Asked() { return worker.Receive<ReadRows>().value_or(ReadRows{}); }
  /// Serves one transaction to its end, that the server tells; the number of pages.
  size_t Serve(const std::vector<Values>& rows) {
    Accept();
    return ServeRows(rows);
  }
  /// The same for a transaction that was accepted.
  size_t ServeRows(const std::vector<Values>& rows) {
    for (size_t pages = 0;; ++pages) {
      const auto request = worker.Receive<ReadRows>();
      if (!request) return pages;
      const size_t first = request->from < 0 ? 0 : static_cast<size_t>(request->from);
      const size_t count = std::min<size_t>(rows.size() - first, request->limit);
      const auto begin = rows.begin() + static_cast<ptrdiff_t>(first);
      Answer(request->request, static_cast<int64_t>(first), {begin, begin + static_cast<ptrdiff_t>(count)},
             first + count == rows.size());
    }
  }

  Program control;
  Program worker;
};

/// A reading that waits for the provider.
class PendingGet final {
 public:
  PendingGet(CdbdProcess& server, const std::string& filter)
      : reply_{std::async(std::launch::async, [&server, filter] {
          return server.Connect().Rpc("<get><filter>" + filter + "</filter></get>");
        })} {}
  /// What is inside <data>, or the whole reply.
  std::string Reply() {
    const std::string reply = reply_.get();
    const size_t begin = reply.find("<data>");
    return begin == std::string::npos ? reply : reply.substr(begin + 6, reply.rfind("</data>") - begin - 6);
  }

 private:
  std::future<std::string> reply_;
};

/// A server and nothing else.
class ProviderData : public testing::Test {
 protected:
  explicit ProviderData(const std::vector<std::string>& options = {}) : server{options} { server.Start(); }
  CdbdProcess server;
};
/// A server and its provider.
class OneProvider : public ProviderData {
 protected:
  explicit OneProvider(const std::vector<std::string>& options = {}) : ProviderData{options} {}
  void SetUp() override { ASSERT_EQ(provider.Register(), ""); }
  Provider provider{server};
};
class ImpatientOneProvider : public OneProvider {
 protected:
  ImpatientOneProvider() : OneProvider{{"--provider-timeout", "0.4"}} {}
};

/// How errors name the provider.
inline const std::string kWho = "the data provider 'app' (process " + std::to_string(::getpid()) + ")";

}  // namespace cdbd::test
