#include "netconf/xml.h"

#include <expat.h>
#include <strings.h>

#include <climits>
#include <memory_resource>
#include <unordered_map>
#include <vector>

namespace netconf {
namespace {

// With data: null stands for what is not there.
constexpr std::string_view kEmpty = "";  // NOLINT(readability-redundant-string-init)

constexpr size_t kMaxDepth = 128;
constexpr size_t kMaxElements = 8'000'000;
constexpr char kSeparator = '\n';  // cannot be in a namespace name or a local name

struct FreeParser {
  void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
};
using ParserPtr = std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser>;

constexpr const char* kOnlyUtf8 = "only the encoding UTF-8 is allowed";

/// Starts as a document in UTF-16 or UTF-32 does. Expat would detect those by itself.
bool StartsWithWideCharacters(std::string_view text) {
  return text.starts_with("\xfe\xff") || text.starts_with("\xff\xfe") ||
         text.substr(0, 2).find('\0') != std::string_view::npos;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

const XmlElement* XmlElement::Child(std::string_view ns, std::string_view local) const {
  const XmlElement* child = first_child;
  while (child != nullptr && !child->Is(ns, local)) child = child->next;
  return child;
}

const XmlAttribute* XmlElement::Attribute(std::string_view ns, std::string_view local) const {
  const XmlAttribute* attribute = attributes;
  while (attribute != nullptr && (attribute->name->local != local || attribute->name->ns != ns))
    attribute = attribute->next;
  return attribute;
}

std::string_view XmlElement::Namespace(std::string_view prefix) const {
  for (const XmlScope* s = scope; s != nullptr; s = s->outer)
    if (s->prefix == prefix) return s->ns;
  return {};
}

struct XmlDocument::State {
  std::pmr::monotonic_buffer_resource arena{4096};
  std::unordered_map<std::string_view, const XmlName*> names;
  const XmlElement* root = nullptr;

  template <class T>
  T* New(T value) {
    return new (arena.allocate(sizeof(T), alignof(T))) T{value};
  }
  std::string_view Keep(std::string_view text) {
    if (text.empty()) return kEmpty;
    char* copy = static_cast<char*>(arena.allocate(text.size(), 1));
    text.copy(copy, text.size());
    return {copy, text.size()};
  }
};

class XmlDocument::Builder final {
 public:
  explicit Builder(State& state) : state_{state}, parser_{XML_ParserCreateNS("UTF-8", kSeparator)} {
    XML_SetReturnNSTriplet(parser_.get(), 1);
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(
        parser_.get(),
        [](void* self, const char* name, const char** attributes) {
          static_cast<Builder*>(self)->Start(name, attributes);
        },
        [](void* self, const char*) { static_cast<Builder*>(self)->End(); });
    XML_SetCharacterDataHandler(parser_.get(), [](void* self, const char* text, int size) {
      static_cast<Builder*>(self)->text_.append(text, static_cast<size_t>(size));
    });
    XML_SetNamespaceDeclHandler(
        parser_.get(),
        [](void* self, const char* prefix, const char* uri) { static_cast<Builder*>(self)->Bind(prefix, uri); },
        nullptr);
    XML_SetXmlDeclHandler(parser_.get(), [](void* self, const char*, const char* encoding, int) {
      if (encoding != nullptr && ::strcasecmp(encoding, "UTF-8") != 0) static_cast<Builder*>(self)->Refuse(kOnlyUtf8);
    });
    XML_SetStartDoctypeDeclHandler(parser_.get(), [](void* self, const char*, const char*, const char*, int) {
      static_cast<Builder*>(self)->Refuse("a document type declaration is not allowed");
    });
  }

  common::Status Run(std::string_view text) {
    if (text.size() > INT_MAX) return common::Error{"parse", "XML", "the document is too large"};
    if (StartsWithWideCharacters(text))
      return common::Error{"line 1", "", kOnlyUtf8, common::ErrorCode::kInvalid, 0, 1};
    if (XML_Parse(parser_.get(), text.data(), static_cast<int>(text.size()), XML_TRUE) == XML_STATUS_OK)
      return common::Ok();
    const std::string reason = refused_ != nullptr ? refused_ : XML_ErrorString(XML_GetErrorCode(parser_.get()));
    const size_t line = XML_GetCurrentLineNumber(parser_.get());
    return common::Error{"line " + std::to_string(line), "", reason, common::ErrorCode::kInvalid, 0, line};
  }

 private:
  struct Open {
    XmlElement* element;
    XmlElement* last_child;
    std::string text;  ///< what came before the child that is open now
  };

  void Refuse(const char* why) {
    refused_ = why;
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  // `name` is "local", "ns\nlocal" or "ns\nlocal\nprefix".
  const XmlName* Intern(const char* name, std::string_view* prefix) {
    const std::string_view whole{name};
    const size_t first = whole.find(kSeparator);
    const size_t second = first == std::string_view::npos ? first : whole.find(kSeparator, first + 1);
    *prefix = second == std::string_view::npos ? std::string_view{} : whole.substr(second + 1);
    const std::string_view key = whole.substr(0, second);
    if (const auto found = state_.names.find(key); found != state_.names.end()) return found->second;
    const std::string_view kept = state_.Keep(key);
    const XmlName value = first == std::string_view::npos ? XmlName{kEmpty, kept}
                                                          : XmlName{kept.substr(0, first), kept.substr(first + 1)};
    return state_.names.emplace(kept, state_.New(value)).first->second;
  }

  void Bind(const char* prefix, const char* uri) {
    scope_ = state_.New(
        XmlScope{state_.Keep(prefix == nullptr ? "" : prefix), state_.Keep(uri == nullptr ? "" : uri), scope_});
  }

  void Start(const char* name, const char** attributes) {
    if (open_.size() >= kMaxDepth) return Refuse("the document is nested too deeply");
    if (++elements_ > kMaxElements) return Refuse("the document has too many elements");
    std::string_view prefix;
    XmlElement* element = state_.New(XmlElement{Intern(name, &prefix), kEmpty, nullptr, nullptr, nullptr, scope_,
                                                static_cast<uint32_t>(XML_GetCurrentLineNumber(parser_.get()))});
    const XmlAttribute** link = &element->attributes;
    for (; *attributes != nullptr; attributes += 2) {
      const XmlName* attribute_name = Intern(attributes[0], &prefix);
      XmlAttribute* attribute =
          state_.New(XmlAttribute{attribute_name, state_.Keep(prefix), state_.Keep(attributes[1]), nullptr});
      *link = attribute;
      link = &attribute->next;
    }
    if (open_.empty()) {
      state_.root = element;
    } else {
      Open& parent = open_.back();
      (parent.last_child == nullptr ? parent.element->first_child : parent.last_child->next) = element;
      parent.last_child = element;
      if (!Trim(text_).empty()) parent.text += text_;
    }
    text_.clear();
    open_.push_back({element, nullptr, {}});
  }

  void End() {
    Open& open = open_.back();
    const bool leaf = open.element->first_child == nullptr;
    if (leaf)
      open.element->text = state_.Keep(text_);
    else if (!open.text.empty() || !Trim(text_).empty())
      open.element->text = state_.Keep(open.text + text_);
    text_.clear();
    open_.pop_back();
    scope_ = open_.empty() ? nullptr : open_.back().element->scope;
  }

  State& state_;
  ParserPtr parser_;
  std::vector<Open> open_;
  std::string text_;
  const XmlScope* scope_ = nullptr;
  size_t elements_ = 0;
  const char* refused_ = nullptr;
};

XmlDocument::XmlDocument(std::unique_ptr<State> state) : state_{std::move(state)} {}
XmlDocument::~XmlDocument() = default;
const XmlElement& XmlDocument::root() const { return *state_->root; }

common::Result<std::unique_ptr<XmlDocument>> XmlDocument::Parse(std::string_view text) {
  auto state = std::make_unique<State>();
  Builder builder{*state};
  if (const common::Status parsed = builder.Run(text); !parsed) return parsed.error();
  return std::unique_ptr<XmlDocument>{new XmlDocument{std::move(state)}};
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

namespace {

const char* Entity(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '\r':
      return "&#13;";
    default:
      return nullptr;
  }
}

const char* AttributeEntity(char c) {
  switch (c) {
    case '"':
      return "&quot;";
    case '\t':
      return "&#9;";
    case '\n':
      return "&#10;";
    default:
      return Entity(c);
  }
}

void AppendWith(const char* (*entity)(char), std::string_view text, std::string* out) {
  size_t plain = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char* replacement = entity(text[i]);
    if (replacement == nullptr) continue;
    out->append(text, plain, i - plain).append(replacement);
    plain = i + 1;
  }
  out->append(text, plain);
}

}  // namespace

void AppendEscaped(std::string_view text, std::string* out) { AppendWith(Entity, text, out); }

std::string EscapedAttribute(std::string_view text) {
  std::string out;
  AppendWith(AttributeEntity, text, &out);
  return out;
}

std::string Escaped(std::string_view text) {
  std::string out;
  AppendEscaped(text, &out);
  return out;
}

OpenElement::OpenElement(std::string_view name, std::string_view attributes, std::string* out)
    : name_{name}, out_{out}, start_{out->size()} {
  out->append("<").append(name).append(attributes).append(">");
  content_ = out->size();
}

void OpenElement::Close() {
  if (out_->size() == content_) {
    out_->back() = '/';
    out_->append(">");
  } else {
    out_->append("</").append(name_).append(">");
  }
}

bool OpenElement::CloseIf(bool wrote) {
  if (wrote)
    Close();
  else
    out_->resize(start_);
  return wrote;
}

void AppendTextElement(std::string_view name, std::string_view attributes, std::string_view text, std::string* out) {
  OpenElement element{name, attributes, out};
  AppendEscaped(text, out);
  element.Close();
}

namespace {

void AppendXmlIn(const XmlElement& element, std::string_view outer_ns, std::string* out) {
  std::string attributes;
  if (element.name->ns != outer_ns) attributes += " xmlns=\"" + EscapedAttribute(element.name->ns) + "\"";
  std::string declared;
  for (const XmlAttribute* a = element.attributes; a != nullptr; a = a->next) {
    const std::string prefix = a->prefix.empty() ? "" : std::string{a->prefix} + ":";
    const std::string declaration = " xmlns:" + std::string{a->prefix} + "=\"" + EscapedAttribute(a->name->ns) + "\"";
    if (!prefix.empty() && a->prefix != "xml" && declared.find(declaration) == std::string::npos)
      declared += declaration;
    attributes += " " + prefix + std::string{a->name->local} + "=\"" + EscapedAttribute(a->value) + "\"";
  }
  OpenElement open{element.name->local, attributes + declared, out};
  AppendEscaped(element.text, out);
  for (const XmlElement* child = element.first_child; child != nullptr; child = child->next)
    AppendXmlIn(*child, element.name->ns, out);
  open.Close();
}

}  // namespace

void AppendXml(const XmlElement& element, std::string* out) { AppendXmlIn(element, {}, out); }

}  // namespace netconf
