#include "netconf/xml.h"

#include <gtest/gtest.h>

#include <string>

namespace netconf {
namespace {

std::string Shown(std::string_view text) {
  const auto document = XmlDocument::Parse(text);
  if (!document) return document.error().Text();
  std::string out;
  AppendXml(document.value()->root(), &out);
  return out;
}

struct Row {
  std::string name;
  std::string text;
  std::string shown;
};
class Parse : public testing::TestWithParam<Row> {};
TEST_P(Parse, Gives) { EXPECT_EQ(Shown(GetParam().text), GetParam().shown); }

INSTANTIATE_TEST_SUITE_P(
    Xml, Parse,
    testing::Values(Row{"Empty", "<a/>", "<a/>"}, Row{"Text", "<a> b </a>", "<a> b </a>"},
                    Row{"Namespaces", "<p:a xmlns:p='u'><b xmlns='v' c='d' p:e='f'/></p:a>",
                        "<a xmlns=\"u\"><b xmlns=\"v\" c=\"d\" p:e=\"f\" xmlns:p=\"u\"/></a>"},
                    Row{"BlankBesideChildrenIsLeftOut", "<a>\n <b/>\n</a>", "<a><b/></a>"},
                    Row{"MixedContentIsKept", "<a>x<b/>y</a>", "<a>xy<b/></a>"},
                    Row{"EntitiesAndSections", "<a>&lt;<![CDATA[<&]]>&#65;</a>", "<a>&lt;&lt;&amp;A</a>"},
                    Row{"CommentsAndInstructionsAreSkipped",
                        "<?xml version='1.0'?><!-- c --><a><?pi x?>b<!-- d -->c</a>", "<a>bc</a>"},
                    Row{"NotXml", "hello", "line 1: syntax error"}, Row{"Nothing", "", "line 1: no element found"},
                    Row{"Unclosed", "<a>\n<b></a>", "line 2: mismatched tag"},
                    Row{"Cut", "<a>\n<b>", "line 2: no element found"},
                    Row{"UnboundPrefix", "<p:a/>", "line 1: unbound prefix"},
                    Row{"BadUtf8", "<a>\xff</a>", "line 1: not well-formed (invalid token)"},
                    Row{"Utf16", std::string{"\xff\xfe<\0a\0/\0>\0", 10}, "line 1: only the encoding UTF-8 is allowed"},
                    Row{"Utf16WithoutMark", std::string{"\0<\0a\0/\0>", 8},
                        "line 1: only the encoding UTF-8 is allowed"},
                    Row{"DeclaredUtf8", "<?xml version='1.0' encoding='uTf-8'?><a/>", "<a/>"},
                    Row{"ByteOrderMarkOfUtf8", "\xef\xbb\xbf<a/>", "<a/>"},
                    Row{"DeclaredOtherEncoding", "<?xml version='1.0' encoding='US-ASCII'?><a/>",
                        "line 1: only the encoding UTF-8 is allowed"},
                    Row{"TwoRoots", "<a/><b/>", "line 1: junk after document element"},
                    Row{"DoctypeIsRefused", "<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>",
                        "line 1: a document type declaration is not allowed"}),
    [](const auto& row) { return row.param.name; });

TEST(XmlDocument, RefusesToNestTooDeeply) {
  std::string deep;
  for (int i = 0; i < 129; ++i) deep += "<a>";
  EXPECT_EQ(Shown(deep), "line 1: the document is nested too deeply");
}

TEST(XmlDocument, KnowsPrefixesInScopeAndLines) {
  const auto document = XmlDocument::Parse("<a xmlns='u' xmlns:p='v'>\n<b xmlns:p='w'/>\n<c/></a>");
  ASSERT_TRUE(document.ok());
  const XmlElement& a = document.value()->root();
  const XmlElement* b = a.Child("u", "b");
  const XmlElement* c = a.Child("u", "c");
  EXPECT_EQ(b->Namespace("p"), "w");
  EXPECT_EQ(c->Namespace("p"), "v");
  EXPECT_EQ(c->Namespace(""), "u");
  EXPECT_EQ(c->Namespace("q").data(), nullptr);
  EXPECT_EQ(c->line, 3U);
  EXPECT_EQ(a.Child("", "b"), nullptr);
}

TEST(Escape, LeavesNothingThatAParserWouldChange) {
  const std::string text = "a&b<c>d\"e\tf\ng\rh]]>]]>";
  const auto document = XmlDocument::Parse("<a b=\"" + EscapedAttribute(text) + "\">" + Escaped(text) + "</a>");
  ASSERT_TRUE(document.ok());
  EXPECT_EQ(document.value()->root().text, text);
  EXPECT_EQ(document.value()->root().attributes->value, text);
}

TEST(OpenElement, EndsWithWhatItsContentNeeds) {
  std::string out{"<list>"};
  OpenElement full{"full", " xmlns=\"u\"", &out};
  OpenElement empty{"empty", {}, &out};
  empty.Close();
  OpenElement unwanted{"unwanted", {}, &out};
  AppendTextElement("in", {}, "it", &out);
  EXPECT_FALSE(unwanted.CloseIf(false));
  AppendTextElement("none", " a=\"b\"", "", &out);
  AppendTextElement("some", {}, "1 < 2", &out);
  EXPECT_TRUE(full.CloseIf(true));
  EXPECT_EQ(out, "<list><full xmlns=\"u\"><empty/><none a=\"b\"/><some>1 &lt; 2</some></full>");
}

}  // namespace
}  // namespace netconf
