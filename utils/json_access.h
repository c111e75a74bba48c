#pragma once

#include <rapidjson/document.h>

#include <string>

namespace redfish {

// Every body the library reads is parsed here: up to its first NUL, strict
// JSON, one root value, iteratively so that deep nesting cannot exhaust the
// stack. Check HasParseError() before reading the document.
void ParseJson(rapidjson::Document& document, const std::string& text);

// The first member of that name, or null (also when value is not an object).
const rapidjson::Value* JsonMember(const rapidjson::Value& value, const char* name);

// The string member of that name; false when absent or not a string.
bool JsonString(const rapidjson::Value& value, const char* name, std::string& out);

// The string member of that name, cut to its first limit bytes; "" when
// absent or not a string.
std::string JsonText(const rapidjson::Value& value, const char* name,
                     size_t limit = std::string::npos);

}  // namespace redfish
