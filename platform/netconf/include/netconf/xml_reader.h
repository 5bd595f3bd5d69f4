#pragma once

#include <memory>
#include <string_view>

#include "common/result.h"
#include "netconf/xml.h"

namespace netconf {

/// Reads a document while it arrives, and keeps nothing of it but the names of the open elements. For documents that
/// may be large; XmlDocument is easier to use for others. Refuses what XmlDocument refuses, and has no limit on the
/// number of elements.
class XmlReader final {
 public:
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual void OnStart(const XmlName& name) = 0;
    /// `text`: of an element without children, all its character data as written; of another, empty.
    virtual void OnEnd(const XmlName& name, std::string_view text) = 0;
    /// A declaration of the element that starts next; `prefix` is "" for the default namespace.
    virtual void OnNamespace(std::string_view /*prefix*/, std::string_view /*ns*/) {}
  };

  /// `handler` outlives the reader. What it is given lives as long as the call.
  explicit XmlReader(Handler& handler);
  XmlReader(const XmlReader&) = delete;
  XmlReader& operator=(const XmlReader&) = delete;
  ~XmlReader();

  /// The next bytes, any number. Fails, with the line, if they are not well formed; a failure is final.
  common::Status Add(std::string_view bytes);
  /// The document has ended. Fails if it is not complete.
  common::Status Finish();
  /// In a handler: the offset in the document of the tag that it is told of; at the end of an element without an end
  /// tag
  /// (<a/>), of what follows it.
  [[nodiscard]] size_t Offset() const;

 private:
  class Parser;
  std::unique_ptr<Parser> parser_;
};

}  // namespace netconf
