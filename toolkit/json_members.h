#pragma once

#include <rapidjson/document.h>

#include <optional>
#include <string>
#include <string_view>

// Reading the library's JSON documents: a member that is absent or of
// another type reads as absent, so that a reader checks only what it needs.
namespace toolkit::json {

using Value = rapidjson::Value;

// Parses json into doc; false unless it is a JSON object. Iterative: however
// deep a text nests, the stack is not at risk.
bool ParseObject(std::string_view json, rapidjson::Document& doc);

// The member name of object when it has that type, else null.
const Value* Member(const Value& object, const char* name, rapidjson::Type type);

// The member's string, "" for none.
std::string Text(const Value& object, const char* name);

std::optional<double> Number(const Value& object, const char* name);

// Whether the member is true.
bool Flag(const Value& object, const char* name);

}  // namespace toolkit::json
