#pragma once

#include <string>
#include <vector>

// MAC addresses as operators type them and as BMCs report them.
namespace toolkit {

// A MAC address as an operator types it: six hex pairs in any case, separated
// by ':' or '-' (one separator throughout). On success, canonical receives the
// lower-case colon form.
bool ParseMac(const std::string& text, std::string& canonical);

// The notations a BMC may use for a canonical MAC, the one of likeThis first
// (likeThis: a MAC text the BMC reported, or empty).
std::vector<std::string> MacNotations(const std::string& canonical, const std::string& likeThis);

// Redfish_GetMacAddress into text: the BMC's MAC text as the BMC wrote it
// (mac null: the first manager's last interface). Returns the call's result.
int ReadBmcMac(const char* user, const char* password, const char* host, const char* mac,
               unsigned int timeoutMs, std::string& text);

}  // namespace toolkit
