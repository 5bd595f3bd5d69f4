#pragma once

#include <string>

#include "reply_reader.h"

namespace cli {

/// What a reader that writes text makes of an answer with this <data>, in pieces of 7 bytes; or why it is not XML.
template <class Reader, class... Arguments>
std::string ReadData(const std::string& data, Arguments&... arguments) {
  std::string text;
  Reader reader{arguments..., [&text](std::string_view piece) { text += piece; }};
  ReplyReader reply{reader};
  netconf::XmlReader xml{reply};
  const std::string answer =
      "<rpc-reply xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><data>" + data + "</data></rpc-reply>";
  common::Status status = common::Ok();
  for (size_t at = 0; at < answer.size() && status; at += 7) status = xml.Add(answer.substr(at, 7));
  if (status) status = xml.Finish();
  if (!status) return status.error().Text();
  reader.OnComplete();
  return text;
}

}  // namespace cli
