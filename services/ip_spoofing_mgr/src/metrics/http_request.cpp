#include "metrics/http_request.h"

namespace mgr {
namespace {

constexpr size_t kMaxRequest = 8192;

const char* PhraseOf(HttpStatus status) {
  switch (status) {
    case HttpStatus::kOk:
      return "OK";
    case HttpStatus::kBadRequest:
      return "Bad Request";
    case HttpStatus::kNotFound:
      return "Not Found";
    case HttpStatus::kMethodNotAllowed:
      return "Method Not Allowed";
    case HttpStatus::kTooLarge:
      return "Request Header Fields Too Large";
  }
  return "";
}

/// Cuts the first word and the blank after it off `line`.
std::string_view CutWord(std::string_view* line) {
  const std::string_view word = line->substr(0, line->find(' '));
  line->remove_prefix(word.size() < line->size() ? word.size() + 1 : word.size());
  return word;
}

}  // namespace

std::optional<HttpStatus> JudgeHttpRequest(std::string_view request) {
  const size_t end = request.find("\r\n\r\n");
  if (end == std::string_view::npos) {
    if (request.size() > kMaxRequest) return HttpStatus::kTooLarge;
    return std::nullopt;
  }
  if (end > kMaxRequest) return HttpStatus::kTooLarge;
  std::string_view line = request.substr(0, request.find("\r\n"));
  const std::string_view method = CutWord(&line);
  const std::string_view target = CutWord(&line);
  if (method.empty() || target.empty() || (line != "HTTP/1.1" && line != "HTTP/1.0")) return HttpStatus::kBadRequest;
  if (method != "GET") return HttpStatus::kMethodNotAllowed;
  return target.substr(0, target.find('?')) == "/metrics" ? HttpStatus::kOk : HttpStatus::kNotFound;
}

std::string HttpResponse(HttpStatus status, std::string_view content_type, std::string_view body) {
  std::string response = "HTTP/1.1 " + std::to_string(static_cast<int>(status)) + " " + PhraseOf(status);
  response += "\r\nContent-Type: ";
  response.append(content_type).append("\r\nContent-Length: ").append(std::to_string(body.size()));
  if (status == HttpStatus::kMethodNotAllowed) response += "\r\nAllow: GET";
  return response.append("\r\nConnection: close\r\n\r\n").append(body);
}

}  // namespace mgr
