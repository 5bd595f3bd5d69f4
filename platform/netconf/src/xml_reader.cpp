#include "netconf/xml_reader.h"

#include <expat.h>

#include <algorithm>
#include <string>
#include <type_traits>

namespace netconf {
namespace {

constexpr size_t kMaxDepth = 128;
constexpr size_t kMaxPiece = size_t{1} << 20;
constexpr char kSeparator = '\n';  // cannot be in a namespace name or a local name

struct FreeParser {
  void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
};

/// `name` is "local" or "ns\nlocal".
XmlName Split(const char* name) {
  const std::string_view whole{name};
  const size_t end = whole.find(kSeparator);
  if (end == std::string_view::npos) return {whole.substr(0, 0), whole};
  return {whole.substr(0, end), whole.substr(end + 1)};
}

}  // namespace

class XmlReader::Parser final {
 public:
  explicit Parser(Handler& handler) : handler_{handler}, parser_{XML_ParserCreateNS("UTF-8", kSeparator)} {
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(
        parser_.get(), [](void* self, const char* name, const char**) { static_cast<Parser*>(self)->Start(name); },
        [](void* self, const char* name) { static_cast<Parser*>(self)->End(name); });
    XML_SetCharacterDataHandler(parser_.get(), [](void* self, const char* text, int size) {
      auto* parser = static_cast<Parser*>(self);
      if (parser->leaf_) parser->text_.append(text, static_cast<size_t>(size));
    });
    XML_SetNamespaceDeclHandler(
        parser_.get(),
        [](void* self, const char* prefix, const char* ns) {
          static_cast<Parser*>(self)->handler_.OnNamespace(prefix != nullptr ? prefix : "", ns != nullptr ? ns : "");
        },
        nullptr);
    XML_SetStartDoctypeDeclHandler(parser_.get(), [](void* self, const char*, const char*, const char*, int) {
      static_cast<Parser*>(self)->Refuse("a document type declaration is not allowed");
    });
  }

  [[nodiscard]] size_t Offset() const { return static_cast<size_t>(XML_GetCurrentByteIndex(parser_.get())); }

  common::Status Parse(std::string_view bytes, bool last) {
    if (XML_Parse(parser_.get(), bytes.data(), static_cast<int>(bytes.size()), last ? XML_TRUE : XML_FALSE) ==
        XML_STATUS_OK)
      return common::Ok();
    common::Error error{"parse", "XML",
                        refused_ != nullptr ? refused_ : XML_ErrorString(XML_GetErrorCode(parser_.get())),
                        common::ErrorCode::kInvalid};
    error.line = XML_GetCurrentLineNumber(parser_.get());
    return error;
  }

 private:
  void Start(const char* name) {
    if (++depth_ > kMaxDepth) return Refuse("the document is nested too deeply");
    leaf_ = true;
    text_.clear();
    handler_.OnStart(Split(name));
  }

  void End(const char* name) {
    --depth_;
    handler_.OnEnd(Split(name), text_);
    leaf_ = false;
    text_.clear();
  }

  void Refuse(const char* why) {
    refused_ = why;
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  Handler& handler_;
  std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> parser_;
  std::string text_;
  bool leaf_ = false;  ///< the innermost open element has no child so far
  size_t depth_ = 0;
  const char* refused_ = nullptr;
};

XmlReader::XmlReader(Handler& handler) : parser_{std::make_unique<Parser>(handler)} {}
XmlReader::~XmlReader() = default;

common::Status XmlReader::Add(std::string_view bytes) {
  for (; !bytes.empty(); bytes.remove_prefix(std::min(kMaxPiece, bytes.size()))) {
    if (common::Status parsed = parser_->Parse(bytes.substr(0, kMaxPiece), false); !parsed) return parsed;
  }
  return common::Ok();
}

common::Status XmlReader::Finish() { return parser_->Parse({}, true); }

size_t XmlReader::Offset() const { return parser_->Offset(); }

}  // namespace netconf
