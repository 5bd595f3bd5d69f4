#include "netconf/xml_reader.h"

#include <gtest/gtest.h>

#include <string>

namespace netconf {
namespace {

class Recorder final : public XmlReader::Handler {
 public:
  void OnStart(const XmlName& name) override { text += "<" + Name(name); }
  void OnEnd(const XmlName& name, std::string_view content) override {
    text += ">" + std::string{content} + "</" + Name(name) + ">";
  }
  std::string text;

 private:
  static std::string Name(const XmlName& name) {
    return (name.ns.empty() ? "" : std::string{name.ns} + "|") + std::string{name.local};
  }
};

/// What the handler was told of a document that arrives in pieces of `size` bytes, or "line N: why not".
std::string Read(const std::string& document, size_t size) {
  Recorder recorder;
  XmlReader reader{recorder};
  common::Status status = common::Ok();
  for (size_t at = 0; at < document.size() && status; at += size) status = reader.Add(document.substr(at, size));
  if (status) status = reader.Finish();
  return status ? recorder.text : "line " + std::to_string(status.error().line) + ": " + status.error().reason;
}

struct Document {
  std::string name;
  std::string text;
  std::string told;
};
void PrintTo(const Document& row, std::ostream* out) { *out << row.name; }
class XmlReaderTest : public testing::TestWithParam<Document> {};

TEST_P(XmlReaderTest, TellsTheSameOfPiecesOfAnySize) {
  for (const size_t size : {1, 2, 7, 1000000}) EXPECT_EQ(Read(GetParam().text, size), GetParam().told) << size;
}

std::string Nested(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<a>";
  for (int i = 0; i < depth; ++i) text += "</a>";
  return text;
}
std::string ToldOfNested(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<a";
  for (int i = 0; i < depth; ++i) text += "></a>";
  return text;
}

INSTANTIATE_TEST_SUITE_P(
    Documents, XmlReaderTest,
    testing::Values(
        Document{"Leaf", "<a>text</a>", "<a>text</a>"}, Document{"Empty", "<a/>", "<a></a>"},
        Document{"Blanks", "<a> x\n</a>", "<a> x\n</a>"}, Document{"References", "<a>&lt;&#65;&amp;</a>", "<a><A&</a>"},
        Document{"Children", "<a>\n <b>1</b>\n <c/>\n</a>", "<a<b>1</b><c></c>></a>"},
        Document{"Namespaces", "<a xmlns='u'><p:b xmlns:p='v'/><c/></a>", "<u|a<v|b></v|b><u|c></u|c>></u|a>"},
        Document{"DeepEnough", Nested(128), ToldOfNested(128)},
        Document{"TooDeep", Nested(129), "line 1: the document is nested too deeply"},
        Document{"Doctype", "<!DOCTYPE a>\n<a/>", "line 1: a document type declaration is not allowed"},
        Document{"Mismatch", "<a>\n<b>\n</a>", "line 3: mismatched tag"},
        Document{"Cut", "<a>\n<b>", "line 2: no element found"}, Document{"Nothing", "", "line 1: no element found"},
        Document{"UnboundPrefix", "<p:a/>", "line 1: unbound prefix"}),
    [](const auto& row) { return row.param.name; });

TEST(XmlReader, TellsPlacesAndNamespaceDeclarations) {
  class Places final : public XmlReader::Handler {
   public:
    void OnNamespace(std::string_view prefix, std::string_view ns) override {
      text += "[" + std::string{prefix} + "=" + std::string{ns} + "]";
    }
    void OnStart(const XmlName&) override { text += std::to_string(reader->Offset()) + "-"; }
    void OnEnd(const XmlName&, std::string_view) override { text += std::to_string(reader->Offset()) + " "; }
    XmlReader* reader = nullptr;
    std::string text;
  } places;
  XmlReader reader{places};
  places.reader = &reader;
  const std::string document = "\n<a xmlns='u' xmlns:p='v'> <b/>x</a>";
  for (const char c : document) ASSERT_TRUE(reader.Add({&c, 1}).ok());
  ASSERT_TRUE(reader.Finish().ok());
  EXPECT_EQ(places.text, "[=u][p=v]1-27-31 32 ");
}

}  // namespace
}  // namespace netconf
