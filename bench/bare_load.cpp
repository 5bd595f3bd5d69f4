#include "bare_load.h"

#include <arpa/inet.h>
#include <lmdb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "app/confd_mgr/config_model.h"
#include "cdb_store/instance_key.h"
#include "cdb_store/packed_row.h"
#include "cdb_store/store_reader.h"
#include "common/paths.h"
#include "harness.h"

namespace bench {
namespace {

using cdb_store::FindLeaf;
using cdb_store::FromVal;
using cdb_store::InstanceKey;
using cdb_store::NodeId;

/// The store, open for reading, and a snapshot of it. A benchmark that cannot read has no result.
struct Store {
  std::unique_ptr<cdb_store::StoreReader> reader;
  std::shared_ptr<cdb_store::Snapshot> snapshot;
};
Store OpenStore() {
  Store store;
  if (auto opened = cdb_store::StoreReader::Open(common::CdbStorePath()); opened.ok()) {
    store.reader = std::move(opened).value();
    if (auto taken = store.reader->Take(); taken.ok()) store.snapshot = std::move(taken).value();
  }
  if (store.snapshot != nullptr) return store;
  std::fprintf(stderr, "benchmark: the store in %s cannot be read\n", common::CdbStorePath().c_str());
  std::exit(2);
}

cdb_store::CursorHandle OpenCursor(MDB_txn* txn, MDB_dbi table) {
  MDB_cursor* cursor = nullptr;
  if (mdb_cursor_open(txn, table, &cursor) != 0) std::exit(2);
  return cdb_store::CursorHandle{cursor};
}

enum class Texts : uint8_t { kNone, kWritten };

/// One load after the other from one snapshot.
class Loader final {
 public:
  Loader(const cdb_store::Snapshot& snapshot, Texts texts)
      : txn_{snapshot.txn()}, table_{snapshot.Running().dbi()}, schema_{snapshot.schema()}, texts_{texts} {}

  void Load(Handed& handed) {
    InstanceKey top;
    const cdb_store::CursorHandle cursor = OpenCursor(txn_, table_);
    const std::string first{top.Row(interface_)};
    MDB_val key = cdb_store::ToVal(first);
    MDB_val row{};
    MDB_cursor_op move = MDB_SET_RANGE;
    for (uint32_t left = Count(top, interface_); left > 0; --left, move = MDB_NEXT) {
      if (mdb_cursor_get(cursor.get(), &key, &row, move) != 0) std::exit(2);
      const std::string_view keys = FromVal(key).substr(first.size());
      const std::string name{keys.substr(0, keys.size() - 2)};
      LoadSources(keys, name, handed);
      if (!FindLeaf(FromVal(row), all_)) {
        switches_ += FindLeaf(FromVal(row), ipv6_all_) ? 1 : 0;
        switches_ += FindLeaf(FromVal(row), ipv4_all_) ? 1 : 0;
      }
    }
  }

 private:
  NodeId Id(const char* path) const {
    const cdb_store::Node* const node = schema_.FindPath("/ais:config/anti-ip-spoofing/" + std::string{path});
    if (node == nullptr) std::exit(2);
    return node->id;
  }

  uint32_t Count(InstanceKey& parent, NodeId list) const {
    MDB_val key = cdb_store::ToVal(parent.Count(list));
    MDB_val count{};
    return mdb_get(txn_, table_, &key, &count) == 0 ? cdb_store::LoadInt<uint32_t>(FromVal(count)) : 0;
  }

  void LoadSources(std::string_view interface_keys, const std::string& name, Handed& handed) {
    InstanceKey parent{interface_keys};
    if (Count(parent, ipv4_) == 0) return;  // whether there are any is one read, how many the next
    const uint32_t count = Count(parent, ipv4_);
    const std::string list_path = ip_spoofing_app::interface_path(name) + "/" + ip_spoofing_app::kAllowedIpv4;
    const std::string_view first = parent.Row(ipv4_);
    const cdb_store::CursorHandle cursor = OpenCursor(txn_, table_);
    MDB_val key = cdb_store::ToVal(first);
    MDB_val row{};
    if (mdb_cursor_get(cursor.get(), &key, &row, MDB_SET_RANGE) != 0) std::exit(2);
    for (uint32_t position = 0; position < count; ++position) {
      if (position > 0 && mdb_cursor_get(cursor.get(), &key, &row, MDB_NEXT) != 0) std::exit(2);
      // Address and VLAN are the key: with the row they exist.
      const std::string_view own = FromVal(key).substr(first.size());
      ip_spoofing_mgr::AllowedIpEntry entry{};
      std::memcpy(entry.address, own.data(), 4);
      entry.vlan = static_cast<uint16_t>(cdb_store::LoadInt<int32_t>(own.substr(4)));
      if (FindLeaf(FromVal(row), mac_)) {
        const std::string_view mac = *FindLeaf(FromVal(row), mac_);
        std::memcpy(entry.mac, mac.data(), sizeof entry.mac);
      }
      if (texts_ == Texts::kWritten) WriteTexts(list_path, position, entry);
      handed.Add(entry);
    }
  }

  void WriteTexts(const std::string& list_path, uint32_t position, const ip_spoofing_mgr::AllowedIpEntry& entry) {
    const std::string path = ip_spoofing_app::instance_path(list_path, static_cast<int>(position));
    for (const char* leaf : {ip_spoofing_app::kAddressLeaf, ip_spoofing_app::kVlanLeaf, ip_spoofing_app::kMacLeaf}) {
      text_bytes_ = text_bytes_ + leaf_path_.assign(path).append(leaf).size();
    }
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, entry.address, text, sizeof text);
    text_bytes_ = text_bytes_ + static_cast<unsigned char>(text[0]);
  }

  MDB_txn* txn_;
  MDB_dbi table_;
  const cdb_store::Schema& schema_;
  const NodeId interface_ = Id("interface");
  const NodeId all_ = Id("interface/allowed-ip/all");
  const NodeId ipv4_all_ = Id("interface/allowed-ip/ipv4-all");
  const NodeId ipv6_all_ = Id("interface/allowed-ip/ipv6-all");
  const NodeId ipv4_ = Id("interface/allowed-ip/ipv4");
  const NodeId mac_ = Id("interface/allowed-ip/ipv4/mac");
  const Texts texts_;
  uint64_t switches_ = 0;
  std::string leaf_path_;
  volatile uint64_t text_bytes_ = 0;
};

BareLoad Measure(int runs, Texts texts) {
  const Store store = OpenStore();
  Loader loader{*store.snapshot, texts};
  BareLoad result;
  result.time = MedianOf(runs, [&] {
    result.handed = {};
    loader.Load(result.handed);
  });
  return result;
}

}  // namespace

void Handed::Add(const ip_spoofing_mgr::AllowedIpEntry& entry) {
  uint32_t address = 0;
  uint64_t mac = 0;
  std::memcpy(&address, entry.address, sizeof address);
  std::memcpy(&mac, entry.mac, sizeof entry.mac);
  ++entries;
  sum += (address ^ mac << 8) * (2 * entries + entry.vlan);  // the order counts too
}

double BareWalk(int runs) {
  const Store store = OpenStore();
  volatile uint64_t sum = 0;
  return MedianOf(runs, [&] {
    const cdb_store::CursorHandle cursor = OpenCursor(store.snapshot->txn(), store.snapshot->Running().dbi());
    MDB_val key{};
    MDB_val value{};
    uint64_t bytes = 0;
    while (mdb_cursor_get(cursor.get(), &key, &value, MDB_NEXT) == 0) {
      for (const char byte : FromVal(key)) bytes += static_cast<uint8_t>(byte);
      for (const char byte : FromVal(value)) bytes += static_cast<uint8_t>(byte);
    }
    sum = sum + bytes;
  });
}

BareLoad BareLoadOfTheSameReads(int runs) { return Measure(runs, Texts::kNone); }
BareLoad BareLoadWithTexts(int runs) { return Measure(runs, Texts::kWritten); }

}  // namespace bench
