// Reads of the scripted database, as the client library's calls.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <functional>

#include "fakes/fake_cdb.h"
#include "fakes/script.h"
#include "fakes/trace.h"

namespace {

using fakes::CdbNode;
using fakes::NodeKind;
using fakes::PathStep;

int Fail(int number, const std::string& text) {
  fakes::SetLastError(number, text);
  return CONFD_ERR;
}

/// The path that a format and its arguments give; false when a conversion is unknown or has no argument.
bool FormatPath(std::string* path, int nargs, const char* format, va_list args) {
  int left = nargs - 1;
  for (const char* at = format; *at != '\0'; ++at) {
    if (*at != '%') {
      *path += *at;
      continue;
    }
    ++at;
    if (*at == '%') {
      *path += '%';
      continue;
    }
    if (left-- <= 0) return false;
    char number[32] = {};
    switch (*at) {
      case 's':
        *path += va_arg(args, const char*);
        break;
      case 'd':
        *path += std::to_string(va_arg(args, int));
        break;
      case 'u':
        *path += std::to_string(va_arg(args, unsigned));
        break;
      case 'x':
        std::snprintf(number, sizeof number, "%x", va_arg(args, unsigned));
        *path += number;
        break;
      default:
        return false;
    }
  }
  return true;
}

/// One read: `work` gets the datastore and the parsed path unless an earlier condition decides the result.
using Work = std::function<int(cdb_db_type, const std::vector<PathStep>&)>;

int Evaluate(const char* function, int sock, const std::string& path, const Work& work) {
  const auto found = fakes::TheCdb().sessions.find(sock);
  if (found == fakes::TheCdb().sessions.end() || !found->second.started) {
    return Fail(CONFD_ERR_BADSTATE, fakes::Format("socket %d holds no session", sock));
  }
  const cdb_db_type db = found->second.db;
  if (const auto answer = fakes::TheScript().Find(function, {path, fakes::DbName(db) + (" " + path)})) {
    if (!answer->error.empty()) fakes::SetLastError(CONFD_ERR_EXTERNAL, answer->error);
    return answer->result;
  }
  const fakes::ParsedPath parsed = fakes::ParsePath(path);
  if (!parsed.error.empty()) return Fail(CONFD_ERR_BADPATH, parsed.error);
  return work(db, parsed.steps);
}

int Read(const char* function, int nargs, int sock, const char* format, va_list args, const Work& work) {
  std::string path;
  const bool formatted = FormatPath(&path, nargs, format, args);
  const int result = formatted ? Evaluate(function, sock, path, work)
                               : Fail(CONFD_ERR_PROTOUSAGE, std::string("Bad format: ") + format);
  const auto found = fakes::TheCdb().sessions.find(sock);
  const std::string db =
      found == fakes::TheCdb().sessions.end() ? fakes::Format("socket %d", sock) : fakes::DbName(found->second.db);
  fakes::TheTrace().Add(fakes::Kind::kRead, fakes::Format("%s %s %s = %d", function, db.c_str(),
                                                          formatted ? path.c_str() : format, result));
  return result;
}

bool ListsInstances(const std::vector<PathStep>& steps) {
  return steps.back().node->kind == NodeKind::kList && !steps.back().IsInstance();
}

/// Number of instances of the list that the last step names; -1 when an instance above it does not exist.
int CountInstances(cdb_db_type db, std::vector<PathStep> steps) {
  const fakes::SchemaNode* const list = steps.back().node;
  bool below_instance = false;
  while (!steps.empty()) {
    steps.pop_back();
    if (const CdbNode* const parent = fakes::TheCdb().Find(db, steps)) {
      return below_instance ? -1 : static_cast<int>(parent->Instances(list).size());
    }
    below_instance = below_instance || (!steps.empty() && steps.back().IsInstance());
  }
  return below_instance ? -1 : 0;
}

/// The leaf that exists and has this type, else null and the error set.
const CdbNode* LeafOf(cdb_db_type db, const std::vector<PathStep>& steps, confd_vtype type) {
  const fakes::SchemaNode& schema = *steps.back().node;
  if (schema.kind != NodeKind::kLeaf || (type != C_NOEXISTS && schema.type != type)) {
    Fail(CONFD_ERR_BADTYPE, "\"" + schema.name + "\" is of another type");
    return nullptr;
  }
  const CdbNode* const leaf = fakes::TheCdb().Find(db, steps);
  if (leaf == nullptr) Fail(CONFD_ERR_NOEXISTS, "\"" + schema.name + "\" does not exist");
  return leaf;
}

/// A read of a leaf of one type, whose node `copy` gets.
Work LeafRead(confd_vtype type, std::function<void(const CdbNode&)> copy) {
  return [type, copy = std::move(copy)](cdb_db_type db, const std::vector<PathStep>& steps) {
    const CdbNode* const leaf = LeafOf(db, steps, type);
    if (leaf == nullptr) return CONFD_ERR;
    copy(*leaf);
    return CONFD_OK;
  };
}

unsigned char* CopyBytes(const std::string& bytes) {
  auto* const copy = static_cast<unsigned char*>(std::calloc(bytes.size() + 1, 1));
  std::copy(bytes.begin(), bytes.end(), copy);
  return copy;
}

void ToValue(const CdbNode& leaf, confd_value_t* v) {
  switch (leaf.schema->type) {
    case C_INT32:
      CONFD_SET_INT32(v, static_cast<int32_t>(std::stol(leaf.value)));
      break;
    case C_IPV4:
      v->type = C_IPV4;
      inet_pton(AF_INET, leaf.value.c_str(), &v->val.ip);
      break;
    case C_BINARY:
      CONFD_SET_BINARY(v, CopyBytes(leaf.value), static_cast<unsigned>(leaf.value.size()));
      break;
    case C_BUF:
      CONFD_SET_BUF(v, CopyBytes(leaf.value), static_cast<unsigned>(leaf.value.size()));
      break;
    default:
      CONFD_SET_XMLTAG(v, 0, 0);
  }
}

}  // namespace

int cdb_exists_n(int nargs, int sock, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = Read("cdb_exists", nargs, sock, fmt, args, [](cdb_db_type db, const auto& steps) {
    if (ListsInstances(steps)) return CountInstances(db, steps) > 0 ? 1 : 0;
    const CdbNode* const node = fakes::TheCdb().Find(db, steps);
    return node != nullptr && node->HasContent() ? 1 : 0;
  });
  va_end(args);
  return result;
}

int cdb_num_instances_n(int nargs, int sock, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = Read("cdb_num_instances", nargs, sock, fmt, args, [](cdb_db_type db, const auto& steps) {
    if (!ListsInstances(steps)) return Fail(CONFD_ERR_BADPATH, "not a list: \"" + steps.back().node->name + "\"");
    const int count = CountInstances(db, steps);
    return count >= 0 ? count : Fail(CONFD_ERR_NOEXISTS, "an instance above the list does not exist");
  });
  va_end(args);
  return result;
}

int cdb_get_n(int nargs, int sock, confd_value_t* v, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result =
      Read("cdb_get", nargs, sock, fmt, args, LeafRead(C_NOEXISTS, [v](const CdbNode& leaf) { ToValue(leaf, v); }));
  va_end(args);
  return result;
}

int cdb_get_str_n(int nargs, int sock, char* buf, int n, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = Read("cdb_get_str", nargs, sock, fmt, args, LeafRead(C_BUF, [buf, n](const CdbNode& leaf) {
                            std::snprintf(buf, static_cast<size_t>(n), "%s", leaf.value.c_str());
                          }));
  va_end(args);
  return result;
}

int cdb_get_binary_n(int nargs, int sock, unsigned char** data, int* length, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result =
      Read("cdb_get_binary", nargs, sock, fmt, args, LeafRead(C_BINARY, [data, length](const CdbNode& leaf) {
             *data = CopyBytes(leaf.value);
             *length = static_cast<int>(leaf.value.size());
           }));
  va_end(args);
  return result;
}

int cdb_get_int32_n(int nargs, int sock, int32_t* v, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result =
      Read("cdb_get_int32", nargs, sock, fmt, args,
           LeafRead(C_INT32, [v](const CdbNode& leaf) { *v = static_cast<int32_t>(std::stol(leaf.value)); }));
  va_end(args);
  return result;
}

int cdb_get_ipv4_n(int nargs, int sock, in_addr* v, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = Read("cdb_get_ipv4", nargs, sock, fmt, args,
                          LeafRead(C_IPV4, [v](const CdbNode& leaf) { inet_pton(AF_INET, leaf.value.c_str(), v); }));
  va_end(args);
  return result;
}

void confd_free_value(confd_value_t* value) {
  if (value->type == C_BUF || value->type == C_BINARY) std::free(value->val.buf.ptr);
  CONFD_SET_NOEXISTS(value);
}
