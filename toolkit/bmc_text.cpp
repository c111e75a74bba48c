#include "toolkit/bmc_text.h"

#include <cstdint>
#include <cstdio>

#include "utils/utf8.h"

namespace toolkit {

namespace {

// What a terminal may act on: C0, DEL and C1 (0x9B alone starts an escape
// sequence on some terminals).
bool IsControl(uint32_t code) { return code < 0x20 || (code >= 0x7F && code <= 0x9F); }

}  // namespace

std::string Printable(std::string_view text) {
  return redfish::RewriteUtf8(text, [](uint32_t code, std::string_view bytes, std::string& out) {
    if (!IsControl(code)) return false;
    for (char c : bytes) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      out += hex;
    }
    return true;
  });
}

size_t Columns(std::string_view printable) {
  size_t columns = 0;
  for (char c : printable) columns += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return columns;
}

std::string JsonEscape(std::string_view text) {
  return redfish::RewriteUtf8(text, [](uint32_t code, std::string_view, std::string& out) {
    if (code == '"' || code == '\\') {
      out += '\\';
      out += static_cast<char>(code);
    } else if (IsControl(code)) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(code));
      out += escaped;
    } else {
      return false;
    }
    return true;
  });
}

}  // namespace toolkit
