#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "model/model.h"
#include "read/filter.h"

namespace cdbd {

/// The server's own state: top-level containers written by whoever knows them.
class StateReader final {
 public:
  /// Appends the whole container as XML.
  using Source = std::function<void(std::string* out)>;

  explicit StateReader(const Model& model) : model_{model} {}

  /// `ns` and `name` are those of the container, a top-level node of the data model.
  void Add(std::string ns, std::string name, Source source) {
    sources_.push_back({std::move(ns), std::move(name), std::move(source)});
  }
  /// Appends what of all sources is selected.
  void Write(const Selection& selection, std::string* out) const;

 private:
  struct Entry {
    std::string ns;
    std::string name;
    Source source;
  };
  const Model& model_;
  std::vector<Entry> sources_;
};

/// Appends what `candidates` select of one data element and what is below it; list keys come with whatever is selected
/// of their entry. False when that is nothing. `node` is the element's; `outer_ns` the namespace around the output.
bool WriteSelected(const Model& model, const cdb_store::Node& node, const netconf::XmlElement& element,
                   const Selection& candidates, std::string_view outer_ns, std::string* out);

/// RFC 3339 text in UTC, "2026-11-21T07:30:00Z".
std::string DateAndTime(std::chrono::system_clock::time_point time);

}  // namespace cdbd
