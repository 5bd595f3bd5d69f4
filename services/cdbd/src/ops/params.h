#pragma once

#include <initializer_list>
#include <optional>
#include <string_view>

#include "netconf/xml.h"
#include "northbound/rpc_error.h"

namespace cdbd {

/// The parameters of an operation: its child elements, in the operation's namespace, and those with which the module
/// cdb-monitor augments it.
class Params final {
 public:
  /// Takes the parameters. error() then tells of the first thing that does not belong there: a parameter that is not
  /// among `known` or `added` (in the namespace of cdb-monitor), one that is there twice, an attribute, text beside
  /// the parameters.
  Params(const netconf::XmlElement& operation, std::initializer_list<std::string_view> known,
         std::initializer_list<std::string_view> added = {});

  /// Null if the request does not have it.
  [[nodiscard]] const netconf::XmlElement* Find(std::string_view name) const;
  [[nodiscard]] const netconf::XmlElement* FindAdded(std::string_view name) const;
  /// The text of a parameter without blanks around it, or `otherwise`. Notes an error if the parameter has elements.
  [[nodiscard]] std::string_view Text(std::string_view name, std::string_view otherwise);
  /// Notes missing-element if the request does not have it.
  const netconf::XmlElement* Require(std::string_view name);
  /// Notes an error unless the parameter `name` (<source>, <target>) holds one element, and its name is one of
  /// `allowed`. That element; all but <config> are empty.
  const netconf::XmlElement* RequireOneOf(std::string_view name, std::initializer_list<std::string_view> allowed);
  /// The parameter <filter>, null if the request does not have it. Notes bad-attribute unless it is a subtree filter.
  const netconf::XmlElement* Filter();
  /// Notes invalid-value: for a parameter whose text is not acceptable.
  void Invalid(std::string_view name, std::string_view value);
  /// Notes invalid-value with the reason that `error` gives.
  void Invalid(std::string_view name, const DataError& error);

  /// The first error, for the author.
  [[nodiscard]] const std::optional<RpcError>& error() const noexcept { return error_; }

 private:
  void CheckAttributes(const netconf::XmlElement& element);
  void CheckOnlyElements(const netconf::XmlElement& element);
  void CheckNoElements(const netconf::XmlElement& element);
  void Note(const char* tag, std::string message, std::string_view element);
  void NoteAttribute(const char* tag, std::string message, const netconf::XmlAttribute& attribute,
                     const netconf::XmlElement& element);

  const netconf::XmlElement& operation_;
  std::optional<RpcError> error_;
};

}  // namespace cdbd
