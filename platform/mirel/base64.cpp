#include "platform/mirel/base64.h"

#include <cstdint>

bool Base64_Encode(const void* data, size_t length, char* out, size_t outSize, size_t* outLength) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (outLength == nullptr || (data == nullptr && length != 0)) return false;
  if (length > (SIZE_MAX - 3) / 4 * 3) return false;
  const size_t needed = (length + 2) / 3 * 4;
  *outLength = needed;
  if (out == nullptr || outSize < needed + 1) return false;

  const auto* in = static_cast<const uint8_t*>(data);
  size_t o = 0;
  size_t i = 0;
  for (; i + 2 < length; i += 3) {
    uint32_t v = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2];
    out[o++] = kAlphabet[(v >> 18) & 63];
    out[o++] = kAlphabet[(v >> 12) & 63];
    out[o++] = kAlphabet[(v >> 6) & 63];
    out[o++] = kAlphabet[v & 63];
  }
  if (i < length) {
    uint32_t v = uint32_t{in[i]} << 16;
    if (i + 1 < length) v |= uint32_t{in[i + 1]} << 8;
    out[o++] = kAlphabet[(v >> 18) & 63];
    out[o++] = kAlphabet[(v >> 12) & 63];
    out[o++] = (i + 1 < length) ? kAlphabet[(v >> 6) & 63] : '=';
    out[o++] = '=';
  }
  out[o] = '\0';
  return true;
}
