#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace netconf {

/// The two ways of RFC 6242 to mark where a message ends.
enum class Framing {
  kEndOfMessage,  ///< base:1.0, and every hello: the six characters "]]>]]>" after the message
  kChunked,       ///< base:1.1: "\n#<size>\n" before each chunk, "\n##\n" after the last
};

/// Splits a byte stream into messages incrementally; never blocks. The framing may change between
/// two messages: what was appended and not taken yet is then read with the new one, as the hello exchange needs.
/// An error is final, because the start of the next message is unknown.
class FrameDecoder final {
 public:
  enum class Status { kNeedMore, kMessage, kError };

  /// A message of more than `max_message` bytes is an error, seen before it is stored.
  explicit FrameDecoder(size_t max_message) : max_message_{max_message} {}

  void SetFraming(Framing framing) { framing_ = framing; }
  [[nodiscard]] Framing framing() const noexcept { return framing_; }

  void Append(std::string_view bytes);
  /// Puts the next complete message into `message`.
  Status Next(std::string* message);
  /// Takes what is there of the message that Next() wants more of; Next() then gives the rest of it. So a large message
  /// needs no memory. The limit then holds for each part.
  [[nodiscard]] std::string TakePart();
  /// Why Next() gave kError.
  [[nodiscard]] const std::string& error() const noexcept { return error_; }
  /// Bytes held: the unread ones and those of the message under way.
  [[nodiscard]] size_t Buffered() const noexcept { return input_.size() - position_ + message_.size(); }

 private:
  Status NextEndOfMessage(std::string* message);
  Status NextChunked(std::string* message);
  enum class Header { kNeedMore, kChunk, kEnd, kError };
  Header ReadChunkHeader();
  Status Fail(std::string reason);
  void Compact();

  const size_t max_message_;
  Framing framing_ = Framing::kEndOfMessage;
  std::string input_;
  size_t position_ = 0;     ///< first unread byte of input_
  size_t scanned_ = 0;      ///< kEndOfMessage: no delimiter starts before this offset of input_
  std::string message_;     ///< kChunked: the chunks so far
  size_t chunk_left_ = 0;   ///< kChunked: bytes of the current chunk still to come
  bool any_chunk_ = false;  ///< kChunked: the message has a chunk
  std::string error_;
};

/// Appends `message`, framed, to `out`. A message for kEndOfMessage must not contain "]]>]]>"; no XML whose text has
/// its '>' escaped does.
void AppendFrame(Framing framing, std::string_view message, std::string* out);

}  // namespace netconf
