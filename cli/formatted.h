#pragma once

#include <cstdio>
#include <string>

// One number through a printf format ("%.0f s ago") as text, cut at 31
// characters.
inline std::string Formatted(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}
