#include "config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "data_path.h"
#include "netconf/xml_reader.h"
#include "yang/last_error.h"

namespace cli {
namespace {

using common::Error;
using common::Result;
using common::Status;
using netconf::XmlElement;

Result<std::string> ReadAll(const std::string& path) {
  const common::UniqueFd fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (!fd) return common::SystemError("", path, errno);
  struct stat info {};
  std::string text;
  if (::fstat(fd.get(), &info) == 0 && info.st_size > 0) text.reserve(static_cast<size_t>(info.st_size));
  std::array<char, 65536> chunk{};
  while (true) {
    const ssize_t got = ::read(fd.get(), chunk.data(), chunk.size());
    if (got == 0) return text;
    if (got > 0) {
      text.append(chunk.data(), static_cast<size_t>(got));
    } else if (errno != EINTR) {
      return common::SystemError("", path, errno);
    }
  }
}

bool IsWrapper(const netconf::XmlName& name) {
  return name.ns == netconf::kBaseNs && (name.local == "config" || name.local == "data" || name.local == "rpc-reply");
}

/// The first element of the data; null if there is none.
const XmlElement* FirstOfData(const netconf::XmlDocument& document) {
  const XmlElement* first = &document.root();
  while (first != nullptr && IsWrapper(*first->name)) first = first->first_child;
  return first;
}

}  // namespace

/// Finds the data in the text of a file, and counts its list entries.
class ConfigFile::Scanner final : public netconf::XmlReader::Handler {
 public:
  Scanner(ConfigFile& file, const ly_ctx& models) : file_{file}, models_{models}, reader_{*this} {}

  Status Scan() {
    Status status = reader_.Add(file_.text_);
    if (status) status = reader_.Finish();
    if (status) return status;
    const Error& error = status.error();
    return Error{"", file_.path_ + ":" + std::to_string(error.line), error.reason, error.code};
  }

  void OnNamespace(std::string_view prefix, std::string_view ns) override {
    if (open_.empty()) declared_.emplace_back(prefix, ns);
  }

  void OnStart(const netconf::XmlName& name) override {
    if (open_.empty() && state_ == State::kBefore && IsWrapper(name)) {
      file_.wrapped_ = true;
      for (const auto& [prefix, ns] : declared_) file_.namespaces_[prefix] = ns;
      declared_.clear();
      return;
    }
    declared_.clear();
    if (state_ == State::kBefore) {
      state_ = State::kInside;
      file_.begin_ = reader_.Offset();
      file_.end_ = file_.text_.size();
    }
    const lysc_node* schema = state_ == State::kInside ? Find(name) : nullptr;
    if (schema != nullptr && schema->nodetype == LYS_LIST) ++file_.list_entries_;
    open_.push_back(schema);
  }

  void OnEnd(const netconf::XmlName& /*name*/, std::string_view /*text*/) override {
    if (!open_.empty()) return open_.pop_back();
    // A wrapper; the innermost one is first.
    if (state_ == State::kInside) file_.end_ = reader_.Offset();
    state_ = State::kAfter;
  }

 private:
  enum class State { kBefore, kInside, kAfter };
  struct Known {
    const lysc_node* parent;
    std::string ns;
    std::string local;
    const lysc_node* schema;
  };

  /// Null for what the models do not have.
  const lysc_node* Find(const netconf::XmlName& name) {
    const lysc_node* parent = open_.empty() ? nullptr : open_.back();
    if (!open_.empty() && parent == nullptr) return nullptr;
    for (const Known& known : known_) {
      if (known.parent == parent && known.local == name.local && known.ns == name.ns) return known.schema;
    }
    Known found{parent, std::string{name.ns}, std::string{name.local}, nullptr};
    if (const lys_module* module = ly_ctx_get_module_implemented_ns(&models_, found.ns.c_str()); module != nullptr)
      found.schema = lys_find_child(parent, module, found.local.c_str(), 0, 0, 0);
    if (found.schema != nullptr) known_.push_back(found);
    return found.schema;
  }

  ConfigFile& file_;
  const ly_ctx& models_;
  netconf::XmlReader reader_;
  State state_ = State::kBefore;
  std::vector<std::pair<std::string, std::string>> declared_;  ///< by the element that starts next
  std::vector<const lysc_node*> open_;                         ///< elements of the data
  std::vector<Known> known_;
};

Result<ConfigFile> ConfigFile::Read(const std::string& path, const ly_ctx& models) {
  Result<std::string> text = ReadAll(path);
  if (!text.ok()) return text.error();
  ConfigFile file{path, std::move(text).value()};
  if (Status scanned = Scanner{file, models}.Scan(); !scanned) return scanned.error();
  return file;
}

Status ConfigFile::Check(const ly_ctx& models) const {
  std::string content;
  if (wrapped_) {
    const auto document = netconf::XmlDocument::Parse(text_);
    if (!document.ok()) return document.error();
    for (const XmlElement* element = FirstOfData(*document.value()); element != nullptr; element = element->next)
      netconf::AppendXml(*element, &content);
  }
  // Without a wrapper libyang sees the file as it is, and its line numbers are the file's.
  lyd_node* tree = nullptr;
  const LY_ERR result = lyd_parse_data_mem(&models, wrapped_ ? content.c_str() : text_.c_str(), LYD_XML,
                                           LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree);
  const DataTree owner{tree};
  if (result == LY_SUCCESS) return common::Ok();
  const yang::LastError why = yang::ReadFirstError(&models);
  std::string where = !wrapped_ && why.line ? path_ + ":" + std::to_string(*why.line) : Place(why.data_path);
  if (!why.data_path.empty()) where += ": " + why.data_path;
  return Error{"", where, why.message, common::ErrorCode::kInvalid};
}

std::string ConfigFile::Config() const {
  std::string prefix = "nc";
  while (namespaces_.contains(prefix)) prefix += "c";
  std::string config = "<" + prefix + ":config xmlns:" + prefix + "=\"" + std::string{netconf::kBaseNs} + "\"";
  config.reserve(end_ - begin_ + 256);
  if (!namespaces_.contains("")) config += " xmlns=\"\"";
  for (const auto& [name, ns] : namespaces_)
    config += (name.empty() ? " xmlns" : " xmlns:" + name) + "=\"" + netconf::EscapedAttribute(ns) + "\"";
  config += ">";
  config.append(text_, begin_, end_ - begin_);
  return config + "</" + prefix + ":config>";
}

std::string ConfigFile::Place(std::string_view data_path) const {
  const auto document = netconf::XmlDocument::Parse(text_);
  const XmlElement* first = document.ok() ? FirstOfData(*document.value()) : nullptr;
  const std::optional<unsigned> line = first != nullptr ? LineOfData(*first, data_path) : std::nullopt;
  return line ? path_ + ":" + std::to_string(*line) : path_;
}

}  // namespace cli
