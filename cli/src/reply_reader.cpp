#include "reply_reader.h"

namespace cli {
namespace {

bool IsBase(const netconf::XmlName& name, std::string_view local) {
  return name.local == local && name.ns == netconf::kBaseNs;
}

void SetMember(const netconf::XmlName& name, std::string_view text, RpcError* error) {
  if (IsBase(name, "error-tag")) error->tag = text;
  if (IsBase(name, "error-path")) error->path = text;
  if (IsBase(name, "error-message")) error->message = text;
  if (IsBase(name, "error-severity")) error->warning = text == "warning";
}

}  // namespace

void ReplyReader::OnStart(const netconf::XmlName& name) {
  ++depth_;
  if (depth_ == 2) {
    part_ = IsBase(name, "data") ? Part::kData : IsBase(name, "rpc-error") ? Part::kError : Part::kOther;
    has_data_ = has_data_ || part_ == Part::kData;
    if (part_ == Part::kError) errors_.emplace_back();
  } else if (depth_ > 2 && part_ == Part::kData) {
    data_.OnStart(depth_ - 2, name);
  }
}

void ReplyReader::OnEnd(const netconf::XmlName& name, std::string_view text) {
  text = netconf::Trim(text);
  if (depth_ > 2 && part_ == Part::kData) data_.OnEnd(depth_ - 2, name, text);
  if (depth_ == 3 && part_ == Part::kError) SetMember(name, text, &errors_.back());
  --depth_;
}

}  // namespace cli
