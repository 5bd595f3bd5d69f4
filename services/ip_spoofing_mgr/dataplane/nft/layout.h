#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"
#include "dataplane/dataplane.h"
#include "dataplane/nft/netlink.h"
#include "dataplane/nft/table.h"

/// How the manager's table is made up: its name, its sets, and what stands in them.
namespace mgr::nft {

inline constexpr unsigned kLayout = 3;          ///< of the sets and rules; part of the table's name
inline constexpr const char* kPorts = "ports";  ///< port id; the record of the port beside it

/// A chain that says: the table was made beside what cannot be read, and is not yet the complete configuration.
inline constexpr const char* kBlind = "blind";

/// Names of the tables of one run directory start alike and end with the layout and the room.
std::string TablePrefix(const std::string& run_dir);
std::string TableName(const std::string& prefix, size_t room);
/// Entries that the table of that name has room for; nothing for one of another run directory or layout.
std::optional<size_t> RoomOf(const std::string& prefix, const std::string& name);

Element KeyElement(const EntryKey& key);
Element BoundElement(const EntryKey& key, const MacAddress& mac);
Element RecordElement(const PortConfig& port);
/// The entry of an element of a set with keys or with MACs; nothing for one of another form.
std::optional<Entry> EntryOf(const Element& element);

/// Makes the table and its sets where they do not exist. 0 or an errno.
int SetUp(Socket& socket, const Table& table, size_t room);
/// The same as a part of a transaction.
void AddSets(Batch& batch, const Table& table, size_t room);
/// A set whose elements are the same in every table.
struct FixedSet {
  std::string name;
  uint32_t key_size;
  std::vector<Element> elements;
};
const std::vector<FixedSet>& FixedSets();
/// The ports and entries that the table holds. An error when anything in it is of another form than SetUp() makes.
common::Result<Snapshot> Read(const Table& table);

}  // namespace mgr::nft
