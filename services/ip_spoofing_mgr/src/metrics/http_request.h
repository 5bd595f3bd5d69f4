#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mgr {

/// What to answer to an HTTP request that asks for metrics.
enum class HttpStatus { kOk = 200, kBadRequest = 400, kNotFound = 404, kMethodNotAllowed = 405, kTooLarge = 431 };

/// Judges what has arrived of a request. nullopt: it is not complete yet. Only "GET /metrics" is served, in HTTP/1.x,
/// with or without a query; the header fields are not looked at.
std::optional<HttpStatus> JudgeHttpRequest(std::string_view request);

/// A whole response; the connection is to be closed after it.
std::string HttpResponse(HttpStatus status, std::string_view content_type, std::string_view body);

}  // namespace mgr
