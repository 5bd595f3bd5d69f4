#include "config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "common/unique_fd.h"
#include "data_path.h"

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

bool IsWrapper(const XmlElement& element) {
  return element.Is(netconf::kBaseNs, "config") || element.Is(netconf::kBaseNs, "data") ||
         element.Is(netconf::kBaseNs, "rpc-reply");
}

/// libyang says where in one text: `Data location "/a:b/c", line number 6.` or `Line number 6.`.
struct Location {
  std::string data_path;
  std::string line;
};
Location ParseLocation(const char* text) {
  Location location;
  const std::string_view all = text != nullptr ? text : "";
  constexpr std::string_view kData = "Data location \"";
  constexpr std::string_view kLine = "ine number ";
  if (const size_t begin = all.find(kData); begin != std::string_view::npos) {
    const size_t end = all.find("\", line", begin);
    const size_t stop = end != std::string_view::npos ? end : all.rfind('"');
    location.data_path = all.substr(begin + kData.size(), stop - begin - kData.size());
  }
  if (const size_t begin = all.rfind(kLine); begin != std::string_view::npos) {
    location.line = all.substr(begin + kLine.size());
    location.line.erase(location.line.find_first_not_of("0123456789"));
  }
  return location;
}

size_t CountListEntries(const lyd_node* first) {
  size_t count = 0;
  for (const lyd_node* top = first; top != nullptr; top = top->next) {
    const lyd_node* node = nullptr;
    LYD_TREE_DFS_BEGIN(top, node) {
      if (node->schema != nullptr && node->schema->nodetype == LYS_LIST) ++count;
      LYD_TREE_DFS_END(top, node);
    }
  }
  return count;
}

}  // namespace

ConfigFile::ConfigFile(std::string path, std::unique_ptr<netconf::XmlDocument> document)
    : path_{std::move(path)}, document_{std::move(document)}, first_{&document_->root()} {
  while (first_ != nullptr && IsWrapper(*first_)) first_ = first_->first_child;
}

Result<ConfigFile> ConfigFile::Read(const std::string& path, const ly_ctx& models) {
  Result<std::string> text = ReadAll(path);
  if (!text.ok()) return text.error();
  auto document = netconf::XmlDocument::Parse(text.value());
  if (!document.ok()) {
    // "line 7"
    const std::string line = document.error().operation.substr(document.error().operation.find(' ') + 1);
    return Error{"", path + ":" + line, document.error().reason};
  }
  ConfigFile file{path, std::move(document).value()};
  if (Status status = file.Check(models, text.value()); !status.ok()) return status.error();
  return file;
}

Status ConfigFile::Check(const ly_ctx& models, const std::string& text) {
  // Without a wrapper libyang sees the file as it is, and its line numbers are the file's.
  const bool as_it_is = first_ == &document_->root();
  lyd_node* tree = nullptr;
  const LY_ERR result = lyd_parse_data_mem(&models, as_it_is ? text.c_str() : Content().c_str(), LYD_XML,
                                           LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree);
  const DataTree owner{tree};
  if (result == LY_SUCCESS) {
    list_entries_ = CountListEntries(tree);
    return common::Ok();
  }
  const ly_err_item* item = ly_err_first(&models);
  const Location location = ParseLocation(item != nullptr ? item->path : nullptr);
  std::string where = as_it_is && !location.line.empty() ? path_ + ":" + location.line : Place(location.data_path);
  if (!location.data_path.empty()) where += ": " + location.data_path;
  return Error{"", where, item != nullptr ? item->msg : "does not fit the data models"};
}

std::string ConfigFile::Content() const {
  std::string content;
  for (const XmlElement* element = first_; element != nullptr; element = element->next) {
    netconf::AppendXml(*element, &content);
  }
  return content;
}

std::string ConfigFile::Place(std::string_view data_path) const {
  if (first_ == nullptr) return path_;
  const std::optional<unsigned> line = LineOfData(*first_, data_path);
  return line ? path_ + ":" + std::to_string(*line) : path_;
}

}  // namespace cli
