#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "common/result.h"

namespace netconf {

inline constexpr std::string_view kBaseNs = "urn:ietf:params:xml:ns:netconf:base:1.0";

struct XmlName {
  std::string_view ns;  ///< "" when the name is in no namespace
  std::string_view local;
};

struct XmlAttribute {
  const XmlName* name;
  std::string_view prefix;
  std::string_view value;
  const XmlAttribute* next;
};

/// One prefix that is bound on an element, and those bound around it.
struct XmlScope {
  std::string_view prefix;  ///< "" is the default namespace
  std::string_view ns;
  const XmlScope* outer;
};

/// One element. Everything it points at lives as long as its document.
struct XmlElement {
  const XmlName* name;
  std::string_view text;  ///< its character data as written; blank text beside child elements is left out
  const XmlAttribute* attributes;
  const XmlElement* first_child;
  const XmlElement* next;  ///< the next sibling
  const XmlScope* scope;
  uint32_t line;  ///< from 1

  [[nodiscard]] bool Is(std::string_view ns, std::string_view local) const {
    return name->local == local && name->ns == ns;
  }
  /// Null if the element has none of that name.
  [[nodiscard]] const XmlElement* Child(std::string_view ns, std::string_view local) const;
  [[nodiscard]] const XmlAttribute* Attribute(std::string_view ns, std::string_view local) const;
  /// What `prefix` stands for here; null data when it is not bound.
  [[nodiscard]] std::string_view Namespace(std::string_view prefix) const;
};

/// A parsed document, read-only. About 64 bytes an element plus its text.
class XmlDocument final {
 public:
  /// Parses UTF-8 `text`. Fails, with the line, when it is not well formed and namespace-correct, is in or declares
  /// another encoding, has a document type declaration, is nested deeper than 128 elements or has more than 8 million
  /// of them.
  static common::Result<std::unique_ptr<XmlDocument>> Parse(std::string_view text);
  ~XmlDocument();

  [[nodiscard]] const XmlElement& root() const;

 private:
  class Builder;
  struct State;
  explicit XmlDocument(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

/// `text` without the white space of XML around it.
std::string_view Trim(std::string_view text);

/// Appends `text` with everything escaped that XML would take for markup or change: & < > and carriage returns.
void AppendEscaped(std::string_view text, std::string* out);
/// Escaped for an attribute in double quotes: quotes, tabs and line feeds too.
std::string EscapedAttribute(std::string_view text);
/// Escaped for element content.
std::string Escaped(std::string_view text);

/// An element that is being appended to a text: its content is what is appended until it is closed.
class OpenElement final {
 public:
  /// Appends the start tag. `attributes`: its text after the name, "" or with a blank in front. `name` and `out`
  /// outlive the element.
  OpenElement(std::string_view name, std::string_view attributes, std::string* out);

  /// Ends it: the end tag, or "/>" in the start tag when nothing was appended since.
  void Close();
  /// Closes it if `wrote`, otherwise removes it and its content. Returns `wrote`.
  bool CloseIf(bool wrote);

 private:
  const std::string_view name_;
  std::string* const out_;
  const size_t start_;
  size_t content_ = 0;
};

/// Appends an element that holds `text`, escaped.
void AppendTextElement(std::string_view name, std::string_view attributes, std::string_view text, std::string* out);
inline void AppendTextElement(std::string_view name, std::string_view text, std::string* out) {
  AppendTextElement(name, {}, text, out);
}

/// Appends `element` as XML that stands for itself: every namespace in use is declared in it.
void AppendXml(const XmlElement& element, std::string* out);

}  // namespace netconf
