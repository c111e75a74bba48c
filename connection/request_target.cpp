#include "connection/request_target.h"

namespace redfish {

namespace {

constexpr std::string_view kRoutePrefix = "/bmc/";

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsControl(unsigned char u) { return u < 0x20 || u == 0x7f; }

// A dot segment anywhere in the path: "/./", "/../", or one at the end.
bool HasDotSegment(std::string_view path) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    const std::string_view segment = path.substr(start, end - start);
    if (segment == "." || segment == "..") return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

const char* UnsafeRequestTarget(std::string_view target) noexcept {
  if (target.substr(0, kRoutePrefix.size()) != kRoutePrefix) return "not under /bmc/";
  for (size_t i = 0; i < target.size(); ++i) {
    const char c = target[i];
    const auto u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u == 0x7f) return "space or control byte";
    // Some servers read a backslash as a slash.
    if (c == '#' || c == '\\') return "fragment or backslash";
    if (c != '%') continue;
    const int high = i + 1 < target.size() ? HexValue(target[i + 1]) : -1;
    const int low = i + 2 < target.size() ? HexValue(target[i + 2]) : -1;
    if (high < 0 || low < 0) return "malformed percent-encoding";
    const int decoded = high * 16 + low;
    if (decoded == '.' || decoded == '/' || decoded == '\\') {
      return "percent-encoded dot, slash or backslash";
    }
    if (IsControl(static_cast<unsigned char>(decoded))) return "percent-encoded control byte";
  }
  if (HasDotSegment(target.substr(0, target.find('?')))) return "dot segment";
  return nullptr;
}

}  // namespace redfish
