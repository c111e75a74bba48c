#pragma once

#include <cstddef>

// Standard Base64 (RFC 4648, with padding). Writes NUL-terminated text into out
// and its length (without the NUL) into *outLength. Returns false, writing
// nothing but *outLength (the size that would be needed), when out is too
// small or an argument is null.
bool Base64_Encode(const void* data, size_t length, char* out, size_t outSize, size_t* outLength);
