#pragma once

#include <string>
#include <vector>

// A MAC address as an operator types it: six hex pairs in any case, separated
// by ':' or '-' (one separator throughout). On success, canonical receives the
// lower-case colon form.
bool ParseMac(const std::string& text, std::string& canonical);

// The notations a BMC may use for a canonical MAC, the one of likeThis first
// (likeThis: a MAC text the BMC reported, or empty).
std::vector<std::string> MacNotations(const std::string& canonical, const std::string& likeThis);
