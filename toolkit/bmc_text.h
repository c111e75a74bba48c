#pragma once

#include <string>
#include <string_view>

// Texts that came from a BMC or the proxy (names, versions, MACs, error
// messages), as the tools write them out. A BMC is not trusted to send text a
// terminal or a parser can take: these are the only ways such a text leaves
// the tools.
namespace toolkit {

// For a terminal or a line-oriented output: valid UTF-8 is kept, each byte of
// a control character (C0, DEL, C1) is written as \xHH, and each byte that
// starts no valid sequence becomes U+FFFD. The result holds no line break.
std::string Printable(std::string_view text);

// How many columns a Printable text takes: one per character.
size_t Columns(std::string_view printable);

// The inside of a JSON string: quote and backslash escaped, control
// characters as \u00HH, each byte that starts no valid sequence as U+FFFD,
// so that our documents stay valid JSON whatever the BMC sent.
std::string JsonEscape(std::string_view text);

}  // namespace toolkit
