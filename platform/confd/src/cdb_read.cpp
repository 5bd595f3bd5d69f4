// Reads of a session: straight from the store's snapshot.
#include <cstdarg>
#include <cstring>

#include "cdb_store/value.h"
#include "client.h"
#include "common/config_reads.h"
#include "path_format.h"
#include "target.h"
#include "values.h"

using cdb_store::Node;
using cdb_store::NodeKind;
using cdb_store::ValueType;
using confd::FailPath;
using confd::Session;
using confd::Target;

namespace {

/// One read under way: the session and the resolved path.
struct Read {
  Session* session = nullptr;
  std::string_view path;
  Target target;
  std::string buffer;  ///< for a value that is not stored as it is read
};

int FailStore(const Read& read, const common::Error& error) {
  return confd::FailStore(*read.session, read.path, error);
}

/// Fills `read`. CONFD_OK, or why there is nothing to read.
int Begin(Read& read, int nargs, int sock, const char* fmt, va_list args) {
  static std::string buffer;
  confd::CdbSocket* const socket = confd::Client::Get().Find(sock, CDB_READ_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (!socket->session) {
    return confd::Fail(CONFD_ERR_BADSTATE, "socket " + std::to_string(sock) + " holds no session");
  }
  const auto path = confd::FormatPath(buffer, nargs, fmt, args);
  if (!path) return CONFD_ERR;
  ++common::ProcessConfigReads().reads;
  read.session = &*socket->session;
  read.path = *path;
  if (read.session->store_failed) return FailStore(read, *read.session->store_failed);
  return confd::ResolvePath(*read.session, *path, read.target);
}

cdb_store::Answer<bool> IsThere(Read& read) {
  const Target& target = read.target;
  const cdb_store::View& view = read.session->view;
  const Node& node = *target.node;
  if (target.is_missing) return false;
  if (target.names_list) {
    const common::Result<uint32_t> count = view.Count(node, target.keys);
    if (!count) return count.error();
    return count.value() > 0;
  }
  if (node.IsKeyLeaf()) return target.HasRow(view, view.schema().node(node.parent));
  if (node.kind == NodeKind::kLeaf) {
    const cdb_store::Lookup<std::string_view> value = target.Leaf(view, read.buffer);
    if (!value.ok()) return value.error();
    return value.value().has_value();
  }
  if (target.row_node == &node) return true;
  return view.Exists(node, target.keys);
}

int Exists(Read& read) {
  const cdb_store::Answer<bool> exists = IsThere(read);
  if (!exists.ok()) return FailStore(read, exists.error());
  return exists.value() ? 1 : 0;
}

/// The instance that the last list of the path lies in exists.
cdb_store::Answer<bool> ParentExists(const Read& read) {
  const cdb_store::Schema& schema = read.session->view.schema();
  const Node& holder = schema.node(schema.node(read.target.node->parent).row);
  if (holder.id == cdb_store::kRootId) return true;
  const cdb_store::Lookup<std::string_view> row = read.session->view.Row(holder, read.target.keys);
  if (!row.ok()) return row.error();
  return row.value().has_value();
}

int NumInstances(const Read& read) {
  const Target& target = read.target;
  if (!target.names_list) return FailPath(CONFD_ERR_BADPATH, read.path, target.node->name + " is no list");
  common::Result<uint32_t> count = 0;
  cdb_store::Answer<bool> exists = false;
  if (!target.is_missing) {
    count = read.session->view.Count(*target.node, target.keys);
    if (!count) return FailStore(read, count.error());
    exists = true;
    if (count.value() == 0) exists = ParentExists(read);
    if (!exists.ok()) return FailStore(read, exists.error());
  }
  if (!exists.value()) {
    return FailPath(CONFD_ERR_NOEXISTS, read.path, "the instance above the list does not exist");
  }
  return static_cast<int>(count.value());
}

/// The stored value of a leaf of `type` (kNone: of any). The read's buffer may hold it.
int Leaf(Read& read, ValueType type, std::string_view& stored) {
  const Node& node = *read.target.node;
  if (read.target.names_list || (node.kind != NodeKind::kLeaf && node.kind != NodeKind::kLeafList)) {
    return FailPath(CONFD_ERR_BADTYPE, read.path, node.name + " is no leaf");
  }
  if (type != ValueType::kNone && node.type != type) {
    return FailPath(CONFD_ERR_BADTYPE, read.path,
                    node.name + " is of type " + TypeName(node.type) + ", not " + TypeName(type));
  }
  const cdb_store::Lookup<std::string_view> found = read.target.Leaf(read.session->view, read.buffer);
  if (!found.ok()) return FailStore(read, found.error());
  const std::optional<std::string_view>& value = found.value();
  if (!value) return FailPath(CONFD_ERR_NOEXISTS, read.path, "does not exist");
  if (const int size = cdb_store::FixedSize(node.type); size >= 0 && value->size() != static_cast<size_t>(size)) {
    return FailPath(CONFD_ERR_OS, read.path, "the stored value is damaged");
  }
  stored = *value;
  return CONFD_OK;
}

/// What every typed read does: hands the stored value of a leaf of `type` to `take`.
template <class Take>
int TakeLeaf(ValueType type, int nargs, int sock, const char* fmt, va_list args, Take take) {
  Read read;
  std::string_view stored;
  int result = Begin(read, nargs, sock, fmt, args);
  if (result == CONFD_OK) result = Leaf(read, type, stored);
  if (result == CONFD_OK) take(read, stored);
  return result;
}

confd_value_t CopyOf(const Read& read, std::string_view stored) {
  return confd::CopyValue(read.session->view.schema(), *read.target.node, stored);
}

}  // namespace

int cdb_exists_n(int nargs, int sock, const char* fmt, ...) {
  Read read;
  va_list args;
  va_start(args, fmt);
  const int result = Begin(read, nargs, sock, fmt, args);
  va_end(args);
  return result == CONFD_OK ? Exists(read) : result;
}

int cdb_num_instances_n(int nargs, int sock, const char* fmt, ...) {
  Read read;
  va_list args;
  va_start(args, fmt);
  const int result = Begin(read, nargs, sock, fmt, args);
  va_end(args);
  return result == CONFD_OK ? NumInstances(read) : result;
}

int cdb_get_n(int nargs, int sock, confd_value_t* v, const char* fmt, ...) {
  const auto take = [v](const Read& read, std::string_view stored) { *v = CopyOf(read, stored); };
  va_list args;
  va_start(args, fmt);
  const int result = TakeLeaf(ValueType::kNone, nargs, sock, fmt, args, take);
  va_end(args);
  return result;
}

int cdb_get_str_n(int nargs, int sock, char* buf, int n, const char* fmt, ...) {
  Read read;
  va_list args;
  va_start(args, fmt);
  int result = Begin(read, nargs, sock, fmt, args);
  va_end(args);
  std::string_view stored;
  if (result == CONFD_OK && (buf == nullptr || n <= 0)) {
    result = FailPath(CONFD_ERR_PROTOUSAGE, read.path, "the buffer has no room");
  }
  if (result == CONFD_OK) result = Leaf(read, ValueType::kString, stored);
  if (result != CONFD_OK) return result;
  const size_t size = std::min(stored.size(), static_cast<size_t>(n) - 1);
  std::memcpy(buf, stored.data(), size);
  buf[size] = '\0';
  return CONFD_OK;
}

int cdb_get_binary_n(int nargs, int sock, unsigned char** data, int* length, const char* fmt, ...) {
  const auto take = [&](const Read& read, std::string_view stored) {
    const confd_value_t copy = CopyOf(read, stored);
    *data = copy.val.buf.ptr;
    *length = static_cast<int>(copy.val.buf.size);
  };
  va_list args;
  va_start(args, fmt);
  const int result = TakeLeaf(ValueType::kBinary, nargs, sock, fmt, args, take);
  va_end(args);
  return result;
}

int cdb_get_int32_n(int nargs, int sock, int32_t* v, const char* fmt, ...) {
  const auto take = [v](const Read&, std::string_view stored) { *v = cdb_store::LoadInt<int32_t>(stored); };
  va_list args;
  va_start(args, fmt);
  const int result = TakeLeaf(ValueType::kInt32, nargs, sock, fmt, args, take);
  va_end(args);
  return result;
}

int cdb_get_ipv4_n(int nargs, int sock, in_addr* v, const char* fmt, ...) {
  const auto take = [v](const Read&, std::string_view stored) { std::memcpy(v, stored.data(), sizeof *v); };
  va_list args;
  va_start(args, fmt);
  const int result = TakeLeaf(ValueType::kIpv4, nargs, sock, fmt, args, take);
  va_end(args);
  return result;
}

void confd_free_value(confd_value_t* value) {
  if (value == nullptr) return;
  if (value->type == C_BUF || value->type == C_BINARY) std::free(value->val.buf.ptr);
  CONFD_SET_NOEXISTS(value);
}
