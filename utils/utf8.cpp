#include "utils/utf8.h"

#include <cstdint>

namespace redfish {

namespace {

// The length of the valid sequence at text[at], or 0.
size_t SequenceAt(std::string_view text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
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
  uint32_t code = lead & (0xFFu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3Fu);
  }
  const uint32_t minimum = length == 3 ? 0x800 : length == 4 ? 0x10000 : 0x80;
  if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

}  // namespace

std::string ValidUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const size_t length = SequenceAt(text, at);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++at;
    } else {
      out.append(text, at, length);
      at += length;
    }
  }
  return out;
}

}  // namespace redfish
