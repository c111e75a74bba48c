#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace redfish {

// The length of the valid UTF-8 sequence that starts at text[at] (no
// overlong form, no surrogate, nothing past U+10FFFF), with its code point
// in *code when asked; 0 when none starts there.
size_t Utf8SequenceAt(std::string_view text, size_t at, uint32_t* code = nullptr);

// text with each byte that starts no valid UTF-8 sequence as U+FFFD, and
// each character for which escape(code point, its bytes, out) appends
// something of its own (and returns true) written that way.
template <typename Escape>
std::string RewriteUtf8(std::string_view text, Escape escape) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    uint32_t code = 0;
    const size_t length = Utf8SequenceAt(text, at, &code);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++at;
      continue;
    }
    if (!escape(code, text.substr(at, length), out)) out.append(text, at, length);
    at += length;
  }
  return out;
}

// text with each byte that starts no valid UTF-8 sequence replaced by U+FFFD.
// The documents the library writes itself hold a BMC's texts: JSON must be
// UTF-8.
std::string ValidUtf8(std::string_view text);

}  // namespace redfish
