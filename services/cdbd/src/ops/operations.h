#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "model/model.h"
#include "northbound/rpc.h"

namespace cdbd {

/// The operations that are served: finds that of a request by its name and namespace. Loop thread only.
class Operations final {
 public:
  /// Answers the request, or keeps it to answer it later.
  using Serve = std::function<void(const RpcPtr&)>;

  /// `model` outlives it.
  explicit Operations(const Model& model) : model_{model} {}

  void Add(std::string_view ns, std::string_view name, Serve serve) {
    entries_.push_back({std::string{ns}, std::string{name}, std::move(serve)});
  }
  void Dispatch(const RpcPtr& rpc) const;

 private:
  struct Entry {
    std::string ns;
    std::string name;
    Serve serve;
  };
  const Model& model_;
  std::vector<Entry> entries_;
};

}  // namespace cdbd
