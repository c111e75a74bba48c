#include "toolkit/json_members.h"

namespace toolkit::json {

bool ParseObject(std::string_view json, rapidjson::Document& doc) {
  doc.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
  return !doc.HasParseError() && doc.IsObject();
}

const Value* Member(const Value& object, const char* name, rapidjson::Type type) {
  auto it = object.FindMember(name);
  return it != object.MemberEnd() && it->value.GetType() == type ? &it->value : nullptr;
}

std::string Text(const Value& object, const char* name) {
  const Value* text = Member(object, name, rapidjson::kStringType);
  return text != nullptr ? std::string(text->GetString(), text->GetStringLength()) : "";
}

std::optional<double> Number(const Value& object, const char* name) {
  const Value* number = Member(object, name, rapidjson::kNumberType);
  if (number == nullptr) return std::nullopt;
  return number->GetDouble();
}

bool Flag(const Value& object, const char* name) {
  return Member(object, name, rapidjson::kTrueType) != nullptr;
}

}  // namespace toolkit::json
