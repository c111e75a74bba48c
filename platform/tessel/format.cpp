#include "platform/tessel/format.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace Tessel::Detail {

void FormatArg::AppendTo(FormatSink& out) const {
  char buf[32];
  switch (kind_) {
    case Kind::Text:
      out.Append(text_);
      return;
    case Kind::Signed: {
      auto r = std::to_chars(buf, buf + sizeof buf, signed_);
      out.Append(std::string_view(buf, static_cast<size_t>(r.ptr - buf)));
      return;
    }
    case Kind::Unsigned: {
      auto r = std::to_chars(buf, buf + sizeof buf, unsigned_);
      out.Append(std::string_view(buf, static_cast<size_t>(r.ptr - buf)));
      return;
    }
    case Kind::Double: {
      int n = std::snprintf(buf, sizeof buf, "%g", double_);
      if (n > 0)
        out.Append(std::string_view(buf, std::min(static_cast<size_t>(n), sizeof buf - 1)));
      return;
    }
  }
}

void FormatTo(std::string_view format, const FormatArg* args, size_t count, FormatSink& out) {
  size_t i = 0;
  while (i < format.size()) {
    // Literal text up to the next '%' goes in one piece.
    const size_t percent = format.find('%', i);
    if (percent == std::string_view::npos) {
      out.Append(format.substr(i));
      break;
    }
    out.Append(format.substr(i, percent - i));
    i = percent;
    const char next = i + 1 < format.size() ? format[i + 1] : '\0';
    if (next == '%') {
      out.Append("%");
      i += 2;
      continue;
    }
    if (next < '1' || next > '9') {
      out.Append("%");
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
      out.Append(format.substr(i, j - i));
    }
    i = j;
  }
}

std::string ASPrintV(std::string_view format, const FormatArg* args, size_t count) {
  class StringSink final : public FormatSink {
   public:
    explicit StringSink(std::string& text) : text_(text) {}
    void Append(std::string_view text) override { text_.append(text); }

   private:
    std::string& text_;
  };
  std::string out;
  out.reserve(format.size() + 48);
  StringSink sink(out);
  FormatTo(format, args, count, sink);
  return out;
}

}  // namespace Tessel::Detail
