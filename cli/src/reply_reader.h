#pragma once

#include <string_view>
#include <vector>

#include "netconf/xml_reader.h"
#include "rpc_errors.h"

namespace cli {

/// Told of what is below the <data> of an answer while it arrives.
class DataReader {
 public:
  virtual ~DataReader() = default;
  /// `level`: 1 for an element right below <data>.
  virtual void OnStart(size_t level, const netconf::XmlName& name) = 0;
  /// `text`: of an element without children, its character data without the white space around it; else empty.
  virtual void OnEnd(size_t level, const netconf::XmlName& name, std::string_view text) = 0;
  /// The data is complete.
  virtual void OnComplete() = 0;
};

/// Takes an <rpc-reply> apart: its <data> for a reader, its errors and warnings for itself.
class ReplyReader final : public netconf::XmlReader::Handler {
 public:
  explicit ReplyReader(DataReader& data) : data_{data} {}

  void OnStart(const netconf::XmlName& name) override;
  void OnEnd(const netconf::XmlName& name, std::string_view text) override;

  [[nodiscard]] bool has_data() const noexcept { return has_data_; }
  [[nodiscard]] const std::vector<RpcError>& errors() const noexcept { return errors_; }

 private:
  enum class Part { kOther, kData, kError };

  DataReader& data_;
  size_t depth_ = 0;  ///< open elements, the <rpc-reply> included
  Part part_ = Part::kOther;
  bool has_data_ = false;
  std::vector<RpcError> errors_;
};

}  // namespace cli
