#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace Tessel::Detail {

// Where formatted text goes: a string, or a logger's record buffer.
class FormatSink {
 public:
  virtual void Append(std::string_view text) = 0;

 protected:
  ~FormatSink() = default;
};

// One argument of a positional format. Texts are kept as views, so an argument
// must outlive the formatting call (it always does: arguments are temporaries
// of that call).
class FormatArg {
 public:
  FormatArg(const char* text) noexcept : kind_(Kind::Text), text_(text ? text : "") {}
  FormatArg(const std::string& text) noexcept : kind_(Kind::Text), text_(text) {}
  FormatArg(std::string_view text) noexcept : kind_(Kind::Text), text_(text) {}
  FormatArg(bool value) noexcept : kind_(Kind::Text), text_(value ? "true" : "false") {}
  FormatArg(char c) noexcept : kind_(Kind::Signed), signed_(c) {}
  FormatArg(double value) noexcept : kind_(Kind::Double), double_(value) {}
  // Every integer width, 8-bit ones included, prints as a decimal number.
  template <typename T, std::enable_if_t<std::is_integral_v<T> && std::is_signed_v<T> &&
                                             !std::is_same_v<T, char> && !std::is_same_v<T, bool>,
                                         int> = 0>
  FormatArg(T value) noexcept : kind_(Kind::Signed), signed_(value) {}
  template <typename T, std::enable_if_t<std::is_integral_v<T> && std::is_unsigned_v<T> &&
                                             !std::is_same_v<T, bool>,
                                         int> = 0>
  FormatArg(T value) noexcept : kind_(Kind::Unsigned), unsigned_(value) {}
  template <typename T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
  FormatArg(T value) noexcept : FormatArg(static_cast<std::underlying_type_t<T>>(value)) {}

  void AppendTo(FormatSink& out) const;

 private:
  enum class Kind { Text, Signed, Unsigned, Double };
  Kind kind_;
  std::string_view text_;
  int64_t signed_ = 0;
  uint64_t unsigned_ = 0;
  double double_ = 0;
};

// Replaces "%1".."%N" with the arguments; "%%" is a literal percent sign.
// A placeholder without an argument is kept as written.
void FormatTo(std::string_view format, const FormatArg* args, size_t count, FormatSink& out);
std::string ASPrintV(std::string_view format, const FormatArg* args, size_t count);

template <typename... Args>
std::string ASPrintInternal(const char* format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg("")};
  return ASPrintV(format ? format : "", list, sizeof...(Args));
}

}  // namespace Tessel::Detail
