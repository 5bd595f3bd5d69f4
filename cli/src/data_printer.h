#pragma once

#include <string>
#include <vector>

#include "models.h"
#include "reply_reader.h"
#include "text_table.h"

namespace cli {

/// Prints data while it arrives, as XML that can be loaded again.
class XmlPrinter final : public DataReader {
 public:
  explicit XmlPrinter(Write write) : write_{std::move(write)} {}
  void OnStart(size_t level, const netconf::XmlName& name) override;
  void OnEnd(size_t level, const netconf::XmlName& name, std::string_view text) override;
  void OnComplete() override { Flush(); }

 private:
  void Flush();

  const Write write_;
  std::vector<std::string> namespaces_;  ///< of the open elements
  bool tag_open_ = false;                ///< the innermost start tag is not finished
  std::string text_;                     ///< not written yet
};

/// Prints data while it arrives, as JSON (RFC 7951): the models say what is a list and what a number. The entries of a
/// list must follow one another, as cdbd writes them.
class JsonPrinter final : public DataReader {
 public:
  /// `models` outlives the printer.
  JsonPrinter(const ly_ctx& models, Write write) : models_{models}, write_{std::move(write)} { open_.emplace_back(); }
  void OnStart(size_t level, const netconf::XmlName& name) override;
  void OnEnd(size_t level, const netconf::XmlName& name, std::string_view text) override;
  void OnComplete() override;
  /// What the models do not have; empty: they have everything.
  [[nodiscard]] const std::string& error() const noexcept { return error_; }

 private:
  struct Node {
    const lysc_node* schema = nullptr;
    const lysc_node* array = nullptr;  ///< the list or leaf-list whose array is open
    bool any = false;                  ///< has a member
  };

  const lysc_node* Find(const netconf::XmlName& name) const;
  void OpenMember(const lysc_node& schema, Node* parent);
  void CloseArray(Node* node);
  void NewLine();
  void AppendValue(const lysc_node& schema, std::string_view text);
  bool IsBare(const lysc_type& type, const lysc_node& schema, std::string_view text) const;
  void Flush();

  const ly_ctx& models_;
  const Write write_;
  std::vector<Node> open_;  ///< the first one is the whole
  size_t indent_ = 1;
  std::string text_;  ///< not written yet
  std::string error_;
};

}  // namespace cli
