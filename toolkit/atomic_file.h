// Files the tools rewrite whole (expositions, state): never seen half written.
#pragma once

#include <string>

namespace toolkit {

// Writes text to path through a temporary file in the same folder (a hidden
// name, which node_exporter's textfile collector ignores), synced and renamed
// over path, mode 0644; false with the reason in error.
bool WriteAtomically(const std::string& path, const std::string& text, std::string& error);

}  // namespace toolkit
