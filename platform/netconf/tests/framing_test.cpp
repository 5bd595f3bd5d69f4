#include "netconf/framing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace netconf {
namespace {

struct Row {
  std::string name;
  Framing framing;
  std::string bytes;
  std::vector<std::string> messages;
  std::string error;  ///< "" when the decoder waits for more in the end
};

class Decode : public testing::TestWithParam<Row> {};

// The messages and the error do not depend on how the bytes are cut into pieces.
TEST_P(Decode, GivesTheseMessagesHoweverTheBytesArrive) {
  const Row& row = GetParam();
  for (size_t piece = 1; piece <= row.bytes.size(); ++piece) {
    FrameDecoder decoder{20};
    decoder.SetFraming(row.framing);
    std::vector<std::string> messages;
    FrameDecoder::Status status = FrameDecoder::Status::kNeedMore;
    for (size_t at = 0; at < row.bytes.size(); at += piece) {
      decoder.Append(std::string_view{row.bytes}.substr(at, piece));
      std::string message;
      while ((status = decoder.Next(&message)) == FrameDecoder::Status::kMessage) messages.push_back(message);
    }
    EXPECT_EQ(messages, row.messages) << "pieces of " << piece;
    EXPECT_EQ(decoder.error(), row.error) << "pieces of " << piece;
    EXPECT_EQ(status == FrameDecoder::Status::kError, !row.error.empty());
  }
}

constexpr const char* kTooLarge = "the message is too large";
constexpr const char* kBadStart = "a chunk must start with a line feed and '#'";
constexpr const char* kBadSize = "a chunk's size must be a number from 1 to 4294967295 and a line feed";
const auto kEom = Framing::kEndOfMessage;
const auto kChunks = Framing::kChunked;

INSTANTIATE_TEST_SUITE_P(
    Framing, Decode,
    testing::Values(
        Row{"EomOne", kEom, "<a/>]]>]]>", {"<a/>"}, ""},
        Row{"EomTwo", kEom, "<a/>]]>]]><b/>]]>]]>", {"<a/>", "<b/>"}, ""}, Row{"EomEmpty", kEom, "]]>]]>", {""}, ""},
        Row{"EomUnfinished", kEom, "<a/>]]>]]", {}, ""}, Row{"EomFalseStart", kEom, "]]>]]]]>]]>", {"]]>]]"}, ""},
        Row{"EomLargest", kEom, "12345678901234567890]]>]]>", {"12345678901234567890"}, ""},
        Row{"EomTooLarge", kEom, "123456789012345678901]]>]]>", {}, kTooLarge},
        Row{"EomTooLargeUnfinished", kEom, "123456789012345678901234567890", {}, kTooLarge},
        Row{"ChunkOne", kChunks, "\n#4\n<a/>\n##\n", {"<a/>"}, ""},
        Row{"ChunkTwoOfOneMessage", kChunks, "\n#1\n<\n#3\na/>\n##\n", {"<a/>"}, ""},
        Row{"ChunkTwoMessages", kChunks, "\n#4\n<a/>\n##\n\n#4\n<b/>\n##\n", {"<a/>", "<b/>"}, ""},
        Row{"ChunkHoldsDelimiters", kChunks, "\n#11\n\n##\n]]>]]>#\n##\n", {"\n##\n]]>]]>#"}, ""},
        Row{"ChunkUnfinished", kChunks, "\n#10\n<a/>", {}, ""}, Row{"ChunkHeaderUnfinished", kChunks, "\n#1", {}, ""},
        Row{"ChunkLargest", kChunks, "\n#10\n1234567890\n#10\n1234567890\n##\n", {"12345678901234567890"}, ""},
        Row{"ChunkTooLarge", kChunks, "\n#21\n123456789012345678901\n##\n", {}, kTooLarge},
        Row{"ChunkSumTooLarge", kChunks, "\n#10\n1234567890\n#11\n12345678901\n##\n", {}, kTooLarge},
        Row{"ChunkSizeBeyondTheRfc", kChunks, "\n#4294967296\n", {}, kBadSize},
        Row{"ChunkSizeElevenDigits", kChunks, "\n#11111111111\n", {}, kBadSize},
        Row{"ChunkSizeZero", kChunks, "\n#0\n", {}, kBadSize},
        Row{"ChunkSizeLeadingZero", kChunks, "\n#04\n<a/>", {}, kBadSize},
        Row{"ChunkSizeMissing", kChunks, "\n#\n", {}, kBadSize},
        Row{"ChunkSizeNoNumber", kChunks, "\n#x\n", {}, kBadSize},
        Row{"ChunkSizeNegative", kChunks, "\n#-1\n", {}, kBadSize},
        Row{"ChunkNoLineFeed", kChunks, "#4\n<a/>", {}, kBadStart},
        Row{"ChunkXmlAtOnce", kChunks, "<rpc/>]]>]]>", {}, kBadStart},
        Row{"ChunkEndWithoutChunk", kChunks, "\n##\n", {}, "a message has at least one chunk"},
        Row{"ChunkEndWithoutLineFeed", kChunks, "\n#1\na\n##x", {}, "the end of chunks must end with a line feed"},
        Row{"ChunkShorterThanSaid", kChunks, "\n#2\na\n##\n", {}, kBadStart},
        Row{"ChunkGoodThenBad", kChunks, "\n#1\na\n##\nx", {"a"}, kBadStart}),
    [](const auto& row) { return row.param.name; });

TEST(FrameDecoder, ReadsTheRestOfItsInputWithAFramingThatWasChanged) {
  FrameDecoder decoder{100};
  decoder.Append("<hello/>]]>]]>\n#4\n<a/>\n##\n");
  std::string message;
  ASSERT_EQ(decoder.Next(&message), FrameDecoder::Status::kMessage);
  EXPECT_EQ(message, "<hello/>");
  decoder.SetFraming(kChunks);
  ASSERT_EQ(decoder.Next(&message), FrameDecoder::Status::kMessage);
  EXPECT_EQ(message, "<a/>");
  EXPECT_EQ(decoder.Buffered(), 0U);
}

TEST(FrameDecoder, AnErrorIsFinal) {
  FrameDecoder decoder{100};
  decoder.SetFraming(kChunks);
  decoder.Append("x");
  std::string message;
  ASSERT_EQ(decoder.Next(&message), FrameDecoder::Status::kError);
  decoder.Append("\n#4\n<a/>\n##\n");
  EXPECT_EQ(decoder.Next(&message), FrameDecoder::Status::kError);
}

TEST(FrameDecoder, AnyBytesEndInMessagesOrAnErrorAndWhatWasEncodedComesBack) {
  std::mt19937 random{1};
  const std::string alphabet = "\n##0129]>]>a";
  for (int round = 0; round < 20000; ++round) {
    FrameDecoder decoder{64};
    decoder.SetFraming(round % 2 == 0 ? kChunks : kEom);
    std::string framed;
    std::vector<std::string> sent;
    for (uint32_t i = 0; i < random() % 4; ++i) {
      std::string text(1 + random() % 40, '\0');
      for (char& c : text) c = "ab\n#"[random() % 4];
      sent.push_back(text);
      AppendFrame(decoder.framing(), text, &framed);
    }
    std::string noise(random() % 12, '\0');
    for (char& c : noise) c = alphabet[random() % alphabet.size()];
    framed += noise;
    std::vector<std::string> got;
    std::string message;
    size_t at = 0;
    while (at < framed.size()) {
      const size_t piece = std::min<size_t>(1 + random() % 9, framed.size() - at);
      decoder.Append(std::string_view{framed}.substr(at, piece));
      at += piece;
      while (decoder.Next(&message) == FrameDecoder::Status::kMessage) got.push_back(message);
    }
    ASSERT_GE(got.size(), sent.size());
    got.resize(sent.size());
    ASSERT_EQ(got, sent);
  }
}

/// The messages of a stream that arrives in pieces and is taken in parts.
std::vector<std::string> InParts(Framing framing, const std::string& bytes, size_t piece) {
  FrameDecoder decoder{40};  // less than the messages have
  decoder.SetFraming(framing);
  std::vector<std::string> messages;
  std::string parts;
  for (size_t at = 0; at < bytes.size(); at += piece) {
    decoder.Append(std::string_view{bytes}.substr(at, piece));
    std::string last;
    while (decoder.Next(&last) == FrameDecoder::Status::kMessage) {
      messages.push_back(parts + last);
      parts.clear();
    }
    parts += decoder.TakePart();
  }
  EXPECT_EQ(decoder.error(), "") << piece;
  return messages;
}

TEST(TakePart, GivesAMessageOfAnySizeInParts) {
  const std::string first = "<a>]]>]] >" + std::string(50, 'x') + "]]</a>", second = "<b/>";
  for (size_t piece = 1; piece <= 20; ++piece) {
    EXPECT_THAT(InParts(Framing::kEndOfMessage, first + "]]>]]>" + second + "]]>]]>", piece),
                testing::ElementsAre(first, second));
    std::string chunks;
    for (size_t at = 0; at < first.size(); at += 11)
      chunks += "\n#" + std::to_string(first.substr(at, 11).size()) + "\n" + first.substr(at, 11);
    EXPECT_THAT(InParts(Framing::kChunked, chunks + "\n##\n\n#4\n" + second + "\n##\n", piece),
                testing::ElementsAre(first, second));
  }
}

}  // namespace
}  // namespace netconf
