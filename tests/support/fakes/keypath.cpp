#include "fakes/keypath.h"

#include <arpa/inet.h>

#include <cstdio>
#include <stdexcept>
#include <vector>

#include "fakes/cdb_schema.h"
#include "fakes/trace.h"

namespace fakes {
namespace {

/// Names of the tags handed out; a tag is the number of its name.
std::vector<std::string>& TagNames() {
  static auto* const names = new std::vector<std::string>;
  return *names;
}

uint32_t TagOf(const std::string& name) {
  std::vector<std::string>& names = TagNames();
  for (uint32_t i = 0; i < names.size(); ++i) {
    if (names[i] == name) return i;
  }
  names.push_back(name);
  return static_cast<uint32_t>(names.size() - 1);
}

std::string Quoted(const std::string& text) {
  if (!text.empty() && text.find_first_of(" {}\"\\") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string TextOf(const confd_value_t& value) {
  char address[INET6_ADDRSTRLEN] = {};
  switch (value.type) {
    case C_BUF:
      return {reinterpret_cast<const char*>(value.val.buf.ptr), value.val.buf.size};
    case C_STR:
      return value.val.s;
    case C_INT32:
      return std::to_string(value.val.i32);
    case C_INT64:
      return std::to_string(value.val.i64);
    case C_IPV4:
      return inet_ntop(AF_INET, &value.val.ip, address, sizeof address);
    case C_IPV6:
      return inet_ntop(AF_INET6, &value.val.ip6, address, sizeof address);
    case C_XMLTAG:
      return TagNames().at(value.val.xmltag.tag);
    default:
      return Format("(type %d)", value.type);
  }
}

std::string TextOf(const confd_hkeypath_t& path) {
  std::string text;
  for (int i = path.len - 1; i >= 0; --i) {
    if (path.v[i][0].type == C_XMLTAG) {
      text += "/" + TextOf(path.v[i][0]);
      continue;
    }
    text += "{";
    for (int k = 0; k < MAXKEYLEN && path.v[i][k].type != C_NOEXISTS; ++k) {
      text += (k == 0 ? "" : " ") + Quoted(TextOf(path.v[i][k]));
    }
    text += "}";
  }
  return text;
}

int Write(char* buf, int size, const std::string& text) {
  return std::snprintf(buf, static_cast<size_t>(size), "%s", text.c_str());
}

}  // namespace

Keypath::Keypath(const std::string& path) {
  const ParsedPath parsed = ParsePath(path);
  if (!parsed.error.empty()) throw std::invalid_argument(parsed.error);
  std::vector<std::vector<confd_value_t>> elements;
  for (const PathStep& step : parsed.steps) {
    elements.emplace_back(1);
    CONFD_SET_XMLTAG(&elements.back()[0], TagOf(step.node->name), 0);
    if (step.keys.empty()) continue;
    elements.emplace_back();
    for (size_t i = 0; i < step.keys.size(); ++i) {
      confd_value_t key{};
      const confd_vtype type = step.node->Child(step.node->keys[i])->type;
      key.type = type;
      if (type == C_INT32) key.val.i32 = static_cast<int32_t>(std::stol(step.keys[i]));
      if (type == C_IPV4) inet_pton(AF_INET, step.keys[i].c_str(), &key.val.ip);
      if (type == C_BUF) {
        strings_.push_back(step.keys[i]);
        CONFD_SET_BUF(&key, reinterpret_cast<unsigned char*>(strings_.back().data()),
                      static_cast<unsigned>(strings_.back().size()));
      }
      elements.back().push_back(key);
    }
  }
  path_.len = static_cast<int>(elements.size());
  for (size_t i = 0; i < elements.size(); ++i) {
    confd_value_t* const place = path_.v[elements.size() - 1 - i];
    for (size_t k = 0; k < elements[i].size(); ++k) place[k] = elements[i][k];
    place[elements[i].size()].type = C_NOEXISTS;
  }
}

Keypath Keypath::StatusRow(int64_t position) {
  Keypath row;
  row.path_.len = 1;
  CONFD_SET_INT64(&row.path_.v[0][0], position);
  CONFD_SET_NOEXISTS(&row.path_.v[0][1]);
  return row;
}

}  // namespace fakes

int confd_pp_kpath(char* buf, int size, const confd_hkeypath_t* path) {
  return fakes::Write(buf, size, fakes::TextOf(*path));
}

int confd_pp_value(char* buf, int size, const confd_value_t* value) {
  return fakes::Write(buf, size, fakes::TextOf(*value));
}
