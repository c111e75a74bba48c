// The value types of the HTTP client: shared by the real client and by test
// doubles that replace the I/O part at link time.
#include <strings.h>

#include <algorithm>
#include <cstring>

#include "platform/tessel/http.h"

namespace Tessel::Http {
namespace {

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsValidHeaderName(const std::string& name) {
  if (name.empty()) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    auto u = static_cast<unsigned char>(c);
    return u > 0x20 && u < 0x7f && c != ':';
  });
}

}  // namespace

// The last line of defence against a target that would reach another
// resource than the one named: a proxy or BMC may normalise dot segments or
// decode an encoded slash after routing on the raw path.
const char* OriginFormProblem(std::string_view t) noexcept {
  if (t.empty() || t[0] != '/') return "not an origin-form path";
  const size_t pathEnd = std::min(t.find('?'), t.size());
  size_t segment = 1;
  for (size_t i = 0; i < t.size(); ++i) {
    const auto u = static_cast<unsigned char>(t[i]);
    if (u <= 0x20 || u == 0x7f) return "space or control byte";
    // Some servers read a backslash as a slash.
    if (u == '#' || u == '\\') return "fragment or backslash";
    if (u == '%') {
      const int hi = i + 2 < t.size() ? HexValue(t[i + 1]) : -1;
      const int lo = hi >= 0 ? HexValue(t[i + 2]) : -1;
      if (lo < 0) return "malformed percent-encoding";
      const int decoded = hi * 16 + lo;
      if (decoded == '.' || decoded == '/' || decoded == '\\') {
        return "percent-encoded dot, slash or backslash";
      }
      if (decoded < 0x20 || decoded == 0x7f) return "percent-encoded control byte";
    }
    if (i < pathEnd && (i + 1 == pathEnd || t[i + 1] == '/')) {
      const std::string_view seg = t.substr(segment, i + 1 - segment);
      if (seg == "." || seg == "..") return "dot segment";
      segment = i + 2;
    }
  }
  return nullptr;
}

bool IsOriginFormTarget(std::string_view t) noexcept { return OriginFormProblem(t) == nullptr; }

const char* MethodName(HttpMethod m) noexcept {
  static constexpr const char* kNames[] = {"GET", "HEAD", "POST", "PUT", "DELETE", "PATCH"};
  return m >= Get && m <= Patch ? kNames[m - Get] : "GET";
}

const char* ReasonPhrase(int code) noexcept {
  switch (code) {
    case 100:
      return "Continue";
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 202:
      return "Accepted";
    case 203:
      return "Non-Authoritative Information";
    case 204:
      return "No Content";
    case 205:
      return "Reset Content";
    case 206:
      return "Partial Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 303:
      return "See Other";
    case 304:
      return "Not Modified";
    case 307:
      return "Temporary Redirect";
    case 308:
      return "Permanent Redirect";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 406:
      return "Not Acceptable";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 410:
      return "Gone";
    case 411:
      return "Length Required";
    case 412:
      return "Precondition Failed";
    case 413:
      return "Content Too Large";
    case 414:
      return "URI Too Long";
    case 415:
      return "Unsupported Media Type";
    case 422:
      return "Unprocessable Content";
    case 428:
      return "Precondition Required";
    case 429:
      return "Too Many Requests";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "";
  }
}

std::string ConnectionSpec::ToString() const {
  std::string text = tls_ ? "https://" : "http://";
  bool v6 = host_.find(':') != std::string::npos;
  if (v6) text.push_back('[');
  text.append(host_);
  if (v6) text.push_back(']');
  text.push_back(':');
  text.append(std::to_string(port_));
  return text;
}

void CreateTCPConnectionSpec(const std::string& host, int port, bool tls, SocketCallback onSocket,
                             Ref<ConnectionSpec>& spec) {
  if (host.empty() || host.find_first_of(" /\r\n\t") != std::string::npos) {
    throw InvalidArgumentException("invalid host name '" + host + "'");
  }
  if (port < 1 || port > 65535) {
    throw InvalidArgumentException("invalid port " + std::to_string(port));
  }
  spec = MakeRef<ConnectionSpec>(host, port, tls, std::move(onSocket));
}

void CreateCookieStore(const std::string& name, Ref<CookieStore>& store) {
  store = MakeRef<CookieStore>(name);
}

void ClientRequest::SetHeader(const std::string& name, const std::string& value) {
  if (!IsValidHeaderName(name) || value.find_first_of("\r\n", 0) != std::string::npos ||
      value.find('\0') != std::string::npos) {
    throw InvalidArgumentException("invalid header '" + name + "'");
  }
  for (auto& h : headers_) {
    if (SameName(h.name, name)) {
      h.value = value;
      return;
    }
  }
  if (headers_.empty()) headers_.reserve(4);  // a request carries a few
  headers_.push_back(Header{name, value});
}

void ClientRequest::SetBody(const void* data, uint32_t length) {
  if (data == nullptr && length != 0) throw InvalidArgumentException("null body with a length");
  body_.assign(static_cast<const char*>(data), length);
}

void CreateHttpRequest(HttpMethod method, std::string_view target, Ref<ClientRequest>& request) {
  if (method < Get || method > Patch) {
    throw InvalidArgumentException("unknown HTTP method " +
                                   std::to_string(static_cast<int>(method)));
  }
  if (!IsOriginFormTarget(target)) {
    throw InvalidArgumentException("invalid request target '" + std::string(target) + "'");
  }
  request = MakeRef<ClientRequest>(method, std::string(target));
  request->targetChecked_ = true;
}

std::optional<std::string_view> ClientResponse::GetHeader(std::string_view name) const {
  for (const auto& h : headers_) {
    if (SameName(h.name, name)) return std::string_view(h.value);
  }
  return std::nullopt;
}

int32_t ClientResponse::ReadBody(void* buffer, uint32_t capacity) {
  const bool first = !readBefore_;
  readBefore_ = true;
  if (!first && (read_ >= body_.size() || capacity == 0)) return -1;
  size_t n = std::min<size_t>({capacity, body_.size() - read_, 0x7fffffff});
  if (n > 0) std::memcpy(buffer, body_.data() + read_, n);
  read_ += n;
  return static_cast<int32_t>(n);
}

}  // namespace Tessel::Http
