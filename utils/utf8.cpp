#include "utils/utf8.h"

namespace redfish {

size_t Utf8SequenceAt(std::string_view text, size_t at, uint32_t* code) {
  uint32_t ignored = 0;
  uint32_t& point = code != nullptr ? *code : ignored;
  const auto lead = static_cast<unsigned char>(text[at]);
  point = lead;
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
  point = lead & (0xFFu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return 0;
    point = (point << 6) | (next & 0x3Fu);
  }
  const uint32_t minimum = length == 3 ? 0x800 : length == 4 ? 0x10000 : 0x80;
  if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return 0;
  return length;
}

std::string ValidUtf8(std::string_view text) {
  return RewriteUtf8(text, [](uint32_t, std::string_view, std::string&) { return false; });
}

}  // namespace redfish
