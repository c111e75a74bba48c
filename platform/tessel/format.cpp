#include "platform/tessel/format.h"

#include <charconv>
#include <cstdio>

namespace Tessel::Detail {

void FormatArg::AppendTo(std::string& out) const {
  char buf[32];
  switch (kind_) {
    case Kind::Text:
      out.append(text_);
      return;
    case Kind::Signed: {
      auto r = std::to_chars(buf, buf + sizeof buf, signed_);
      out.append(buf, r.ptr);
      return;
    }
    case Kind::Unsigned: {
      auto r = std::to_chars(buf, buf + sizeof buf, unsigned_);
      out.append(buf, r.ptr);
      return;
    }
    case Kind::Double: {
      int n = std::snprintf(buf, sizeof buf, "%g", double_);
      if (n > 0) out.append(buf, static_cast<size_t>(n) < sizeof buf ? n : sizeof buf - 1);
      return;
    }
  }
}

std::string ASPrintV(std::string_view format, const FormatArg* args, size_t count) {
  std::string out;
  out.reserve(format.size() + 48);
  size_t i = 0;
  while (i < format.size()) {
    // Literal text up to the next '%' goes in one piece.
    const size_t percent = format.find('%', i);
    if (percent == std::string_view::npos) {
      out.append(format.substr(i));
      break;
    }
    out.append(format.substr(i, percent - i));
    i = percent;
    const char next = i + 1 < format.size() ? format[i + 1] : '\0';
    if (next == '%') {
      out.push_back('%');
      i += 2;
      continue;
    }
    if (next < '1' || next > '9') {
      out.push_back('%');
      ++i;
      continue;
    }
    size_t j = i + 1;
    size_t index = 0;
    while (j < format.size() && format[j] >= '0' && format[j] <= '9' && index < 1000) {
      index = index * 10 + static_cast<size_t>(format[j] - '0');
      ++j;
    }
    if (index >= 1 && index <= count) {
      args[index - 1].AppendTo(out);
    } else {
      out.append(format.substr(i, j - i));
    }
    i = j;
  }
  return out;
}

}  // namespace Tessel::Detail
