#include "netconf/framing.h"

#include <algorithm>
#include <utility>

namespace netconf {
namespace {

constexpr std::string_view kEndOfMessage = "]]>]]>";
constexpr std::string_view kEndOfChunks = "\n##\n";
constexpr size_t kMaxSizeDigits = 10;  // RFC 6242: a chunk has at most 4294967295 bytes
constexpr size_t kMaxChunk = 4294967295;

}  // namespace

void FrameDecoder::Append(std::string_view bytes) { input_.append(bytes); }

FrameDecoder::Status FrameDecoder::Next(std::string* message) {
  if (!error_.empty()) return Status::kError;
  return framing_ == Framing::kEndOfMessage ? NextEndOfMessage(message) : NextChunked(message);
}

FrameDecoder::Status FrameDecoder::NextEndOfMessage(std::string* message) {
  const size_t end = input_.find(kEndOfMessage, std::max(scanned_, position_));
  if (end == std::string::npos) {
    const size_t held = input_.size() - position_;
    if (held > max_message_ + kEndOfMessage.size()) return Fail("the message is too large");
    scanned_ = std::max(position_, input_.size() - std::min(held, kEndOfMessage.size() - 1));
    return Status::kNeedMore;
  }
  if (end - position_ > max_message_) return Fail("the message is too large");
  message->assign(input_, position_, end - position_);
  position_ = end + kEndOfMessage.size();
  scanned_ = position_;
  Compact();
  return Status::kMessage;
}

FrameDecoder::Status FrameDecoder::NextChunked(std::string* message) {
  while (true) {
    if (chunk_left_ > 0) {
      const size_t take = std::min(chunk_left_, input_.size() - position_);
      message_.append(input_, position_, take);
      position_ += take;
      chunk_left_ -= take;
      if (chunk_left_ > 0) {
        Compact();
        return Status::kNeedMore;
      }
    }
    switch (ReadChunkHeader()) {
      case Header::kNeedMore:
        Compact();
        return Status::kNeedMore;
      case Header::kError:
        return Status::kError;
      case Header::kChunk:
        any_chunk_ = true;
        break;
      case Header::kEnd:
        *message = std::exchange(message_, std::string{});
        any_chunk_ = false;
        Compact();
        return Status::kMessage;
    }
  }
}

std::string FrameDecoder::TakePart() {
  if (framing_ == Framing::kChunked) return std::exchange(message_, std::string{});
  // What is before scanned_ holds no delimiter, nor the beginning of one.
  if (scanned_ <= position_) return {};
  std::string part = input_.substr(position_, scanned_ - position_);
  position_ = scanned_;
  Compact();
  return part;
}

FrameDecoder::Header FrameDecoder::ReadChunkHeader() {
  const std::string_view rest = std::string_view{input_}.substr(position_);
  const size_t common = std::min<size_t>(rest.size(), 2);
  if (rest.substr(0, common) != kEndOfChunks.substr(0, common)) {
    Fail("a chunk must start with a line feed and '#'");
    return Header::kError;
  }
  if (rest.size() < 3) return Header::kNeedMore;
  if (rest[2] == '#') {
    if (rest.size() < 4) return Header::kNeedMore;
    if (rest[3] != '\n' || !any_chunk_) {
      Fail(any_chunk_ ? "the end of chunks must end with a line feed" : "a message has at least one chunk");
      return Header::kError;
    }
    position_ += kEndOfChunks.size();
    return Header::kEnd;
  }
  size_t size = 0;
  for (size_t i = 2; i < rest.size(); ++i) {
    const char c = rest[i];
    if (c == '\n' && i > 2) {
      if (size > kMaxChunk) break;
      if (size > max_message_ - message_.size()) {
        Fail("the message is too large");
        return Header::kError;
      }
      position_ += i + 1;
      chunk_left_ = size;
      return Header::kChunk;
    }
    const bool leading_zero = i == 2 && c == '0';
    if (c < '0' || c > '9' || leading_zero || i - 2 >= kMaxSizeDigits) break;
    size = size * 10 + static_cast<size_t>(c - '0');
    if (i + 1 == rest.size()) return Header::kNeedMore;
  }
  Fail("a chunk's size must be a number from 1 to 4294967295 and a line feed");
  return Header::kError;
}

FrameDecoder::Status FrameDecoder::Fail(std::string reason) {
  error_ = std::move(reason);
  std::string{}.swap(input_);
  std::string{}.swap(message_);
  position_ = 0;
  return Status::kError;
}

// Moving the unread rest to the front costs at most one copy of each byte, for at least as many bytes went before.
void FrameDecoder::Compact() {
  if (position_ < input_.size() - position_) return;
  input_.erase(0, position_);
  scanned_ -= std::min(scanned_, position_);
  position_ = 0;
  if (input_.empty()) std::string{}.swap(input_);  // an assignment would keep the memory
}

void AppendFrame(Framing framing, std::string_view message, std::string* out) {
  if (framing == Framing::kEndOfMessage) {
    out->append(message).append(kEndOfMessage);
    return;
  }
  for (size_t offset = 0; offset < message.size(); offset += kMaxChunk) {
    const std::string_view chunk = message.substr(offset, kMaxChunk);
    out->append("\n#").append(std::to_string(chunk.size())).append("\n").append(chunk);
  }
  out->append(kEndOfChunks);
}

}  // namespace netconf
