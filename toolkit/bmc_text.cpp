#include "toolkit/bmc_text.h"

#include <cstdint>
#include <cstdio>

namespace toolkit {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

// The sequence at text[at] and its code point; 0 when it is not valid UTF-8.
size_t Decode(std::string_view text, size_t at, uint32_t& code) {
  const auto lead = static_cast<unsigned char>(text[at]);
  code = lead;
  if (lead < 0x80) return 1;
  size_t length = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
  }
  if (length == 0 || text.size() - at < length) return 0;
  code = lead & (0xFFu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3Fu);
  }
  const uint32_t minimum = length == 3 ? 0x800 : length == 4 ? 0x10000 : 0x80;
  if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

// What a terminal may act on: C0, DEL and C1 (0x9B alone starts an escape
// sequence on some terminals).
bool IsControl(uint32_t code) { return code < 0x20 || (code >= 0x7F && code <= 0x9F); }

}  // namespace

size_t Utf8SequenceAt(std::string_view text, size_t at) {
  uint32_t code = 0;
  return Decode(text, at, code);
}

std::string Printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    uint32_t code = 0;
    const size_t length = Decode(text, at, code);
    if (length == 0) {
      out += kReplacement;
      ++at;
      continue;
    }
    if (IsControl(code)) {
      for (size_t i = 0; i < length; ++i) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(text[at + i]));
        out += hex;
      }
    } else {
      out.append(text, at, length);
    }
    at += length;
  }
  return out;
}

size_t Columns(std::string_view printable) {
  size_t columns = 0;
  for (char c : printable) columns += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return columns;
}

std::string JsonEscape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    uint32_t code = 0;
    const size_t length = Decode(text, at, code);
    if (length == 0) {
      out += kReplacement;
      ++at;
      continue;
    }
    if (code == '"' || code == '\\') {
      out += '\\';
      out += static_cast<char>(code);
    } else if (IsControl(code)) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(code));
      out += escaped;
    } else {
      out.append(text, at, length);
    }
    at += length;
  }
  return out;
}

}  // namespace toolkit
