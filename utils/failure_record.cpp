#include "utils/failure_record.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <string>

#include "utils/json_access.h"

namespace redfish {

namespace {

struct Account {
  RedfishFailure failure;  // size unused here
  int notedResult;         // the result the noted link explains; 0 when none was noted
};

thread_local Account tAccount;

// Copies text into a fixed field, cut to fit (control bytes are replaced when
// the record is read: this runs for every request).
template <size_t N>
void Put(char (&field)[N], std::string_view text) {
  const size_t n = std::min(text.size(), N - 1);
  std::memcpy(field, text.data(), n);
  field[n] = '\0';
}

// A text the BMC sent cannot break a caller's log line or terminal.
template <size_t N>
void Sanitise(char (&field)[N]) {
  for (char& c : field) {
    if (c == '\0') break;
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) c = ' ';
  }
}

bool ContainsNoCase(std::string_view text, std::string_view word) {
  return std::search(text.begin(), text.end(), word.begin(), word.end(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) == b;
         }) != text.end();
}

// The text between <title> and </title> of an HTML page, if any.
std::string_view Title(std::string_view page) {
  const size_t open = page.find("<title>");
  const size_t close = page.find("</title>");
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return {};
  return page.substr(open + 7, close - open - 7);
}

// What a Redfish error object says: its first extended message, else its own
// message or code.
bool RedfishMessage(std::string_view body, std::string& message) {
  rapidjson::Document document;
  ParseJson(document, std::string(body));
  if (document.HasParseError()) return false;
  const rapidjson::Value* error = JsonMember(document, "error");
  if (error == nullptr || !error->IsObject()) return false;
  const rapidjson::Value* info = JsonMember(*error, "@Message.ExtendedInfo");
  if (info != nullptr && info->IsArray() && !info->Empty() &&
      JsonString((*info)[0], "Message", message)) {
    return true;
  }
  // An error object without any text is still the BMC's answer.
  if (!JsonString(*error, "message", message)) JsonString(*error, "code", message);
  return true;
}

RedfishLink LinkOfResult(int result) {
  switch (result) {
    case REDFISH_FEATURE_DISABLED:
      return REDFISH_LINK_SWITCH;
    case REDFISH_ERR_NO_BMC_ADDRESS:
      return REDFISH_LINK_SMBIOS;
    case REDFISH_UNKNOWN_VENDOR:
    case REDFISH_ERR_NO_MEMBER:
      return REDFISH_LINK_DISCOVERY;
    case REDFISH_ERR_ROUTE_DOCUMENT:
    case REDFISH_ERR_BAD_JSON:
    case REDFISH_ERR_NO_MEMBERS:
    case REDFISH_ERR_UNEXPECTED_JSON:
      return REDFISH_LINK_DOCUMENT;
    case REDFISH_ERR_INVALID_ARGUMENT:
    case REDFISH_ERR_MAC_MISMATCH:
    case REDFISH_ERR_COMMAND_NOT_ALLOWED:
      return REDFISH_LINK_GUARD;
    case REDFISH_ERR_CREDENTIALS_ENCODING:
    case REDFISH_ERR_UNAUTHORIZED:
      return REDFISH_LINK_CREDENTIALS;
    case REDFISH_ERR_SYSTEM:
    case REDFISH_ERR_TRANSPORT:
      return REDFISH_LINK_PROXY;
    default:
      return REDFISH_LINK_BMC;  // a time-out, an HTTP status, a vendor's "no action" answer
  }
}

}  // namespace

void BeginCall() noexcept { tAccount = Account{}; }

void NoteExchange(std::string_view method, std::string_view uri) noexcept {
  RedfishFailure& f = tAccount.failure;
  Put(f.method, method);
  Put(f.uri, uri);
  f.httpStatus = 0;
  f.detail[0] = '\0';
  tAccount.notedResult = 0;
}

void NoteAnswer(int status, std::string_view body) noexcept {
  RedfishFailure& f = tAccount.failure;
  f.httpStatus = status;
  try {
    std::string message;
    if (status == 401) {
      NoteFailure(REDFISH_LINK_CREDENTIALS, REDFISH_ERR_UNAUTHORIZED, "the BMC refused them");
    } else if (RedfishMessage(body, message)) {
      NoteFailure(REDFISH_LINK_BMC, status, "the BMC: " + message);
    } else if (ContainsNoCase(body, "<html") || status == 502 || status == 504) {
      // A gateway error or an HTML page is the proxy speaking, not the BMC.
      // The proxy works then; a gateway status says the BMC behind it did not
      // answer, and that is the link to look at.
      const bool gateway = status == 502 || status == 503 || status == 504;
      const std::string_view title = Title(body);
      NoteFailure(gateway ? REDFISH_LINK_BMC : REDFISH_LINK_PROXY, status,
                  std::string("the proxy: ") +
                      (title.empty() ? std::string(body.substr(0, 120)) : std::string(title)));
    } else {
      NoteFailure(REDFISH_LINK_BMC, status,
                  std::string("the BMC: ") + std::string(body.substr(0, 120)));
    }
  } catch (...) {
    NoteFailure(REDFISH_LINK_BMC, status, "");
  }
}

void NoteFailure(RedfishLink link, int result, std::string_view detail) noexcept {
  tAccount.failure.link = link;
  tAccount.failure.result = result;
  tAccount.notedResult = result;
  Put(tAccount.failure.detail, detail);
}

int FinishCall(int result) noexcept {
  RedfishFailure& f = tAccount.failure;
  if (result == REDFISH_OK) {
    tAccount = Account{};
    return result;
  }
  if (tAccount.notedResult != result || f.link == REDFISH_LINK_NONE) {
    f.link = LinkOfResult(result);
    if (tAccount.notedResult != 0 && tAccount.notedResult != result) f.detail[0] = '\0';
  }
  f.result = result;
  tAccount.notedResult = result;
  return result;
}

int CopyLastFailure(RedfishFailure* failure) noexcept {
  constexpr size_t kLeast = offsetof(RedfishFailure, link) + sizeof(RedfishLink);
  if (failure == nullptr || failure->size < kLeast) return REDFISH_ERR_INVALID_ARGUMENT;
  const size_t size = std::min<size_t>(failure->size, sizeof(RedfishFailure));
  RedfishFailure copy = tAccount.failure;
  copy.size = failure->size;
  Sanitise(copy.method);
  Sanitise(copy.uri);
  Sanitise(copy.detail);
  // A caller's older, shorter struct may end inside a text: end it there.
  const size_t texts[][2] = {{offsetof(RedfishFailure, method), sizeof copy.method},
                             {offsetof(RedfishFailure, uri), sizeof copy.uri},
                             {offsetof(RedfishFailure, detail), sizeof copy.detail}};
  for (const auto& [offset, length] : texts) {
    if (size > offset && size < offset + length) reinterpret_cast<char*>(&copy)[size - 1] = '\0';
  }
  std::memcpy(static_cast<void*>(failure), &copy, size);
  return REDFISH_OK;
}

}  // namespace redfish
