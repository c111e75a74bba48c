#pragma once

#include <string>
#include <string_view>

namespace redfish {

// text with each byte that starts no valid UTF-8 sequence (overlong forms,
// surrogates and code points past U+10FFFF included) replaced by U+FFFD. The
// documents the library writes itself hold a BMC's texts: JSON must be UTF-8.
std::string ValidUtf8(std::string_view text);

}  // namespace redfish
