#include "resources/event_log.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <set>
#include <unordered_set>

#include "platform/tessel/http.h"
#include "resources/documents.h"
#include "resources/inventory.h"
#include "resources/log_entries.h"
#include "resources/read_context.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace {

using Tessel::Http::ResponseCode;

constexpr char kSystems[] = "/redfish/v1/Systems";
constexpr char kManagers[] = "/redfish/v1/Managers";
// A read looks at no more entries and pages than these, whatever the BMC
// lists; the rest waits for the next read (or is reported missed).
constexpr size_t kMaxEntries = ReadContext::kMaxMembers;
constexpr size_t kMaxPages = 128;
// A BMC without a log is asked again after this long.
constexpr int64_t kRecheckSeconds = 3600;

int64_t Now() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A path the read may follow and its cursor keep: the BMC's, not too long.
bool UnderRoot(const std::string& path) {
  return path.size() <= LogCursor::kMaxPath && path.rfind("/redfish/v1/", 0) == 0;
}

std::string LinkOf(const rapidjson::Value& object, const char* name) {
  std::string link;
  if (const rapidjson::Value* value = JsonMember(object, name))
    JsonString(*value, "@odata.id", link);
  return link;
}

bool Refused(int result) {
  return result == ResponseCode::NotImplemented || result == ResponseCode::BadRequest;
}

// The members of a collection the discovery walks; one that is not there
// (a chassis manager without Systems) has none.
int MembersOf(ReadContext& read, const std::string& path, std::vector<std::string>& ids) {
  Fetched collection;
  const int result = read.Get(path, collection);
  if (result == ResponseCode::NotFound) return RedfishStatusOk;
  if (result != RedfishStatusOk) return result;
  if (collection.document.HasParseError()) return RedfishStatusBadJson;
  std::vector<std::string> found;
  if (MemberIds(collection.document, found) != RedfishStatusOk) return RedfishStatusOk;
  if (!read.Follow(found.size())) {
    NoteFailure(REDFISH_LINK_DISCOVERY, RedfishStatusUnexpectedJson, ReadContext::Bounded(path));
    return RedfishStatusUnexpectedJson;
  }
  ids.insert(ids.end(), found.begin(), found.end());
  return RedfishStatusOk;
}

// GETs each path; the answers that are 200 and JSON, in order. Only a spent
// budget fails: a part that cannot be read is passed over.
int ReadEach(ReadContext& read, const std::vector<std::string>& paths,
             std::vector<std::unique_ptr<Fetched>>& out) {
  read.GetAll(paths, out);
  if (read.Left().count() == 0) return RedfishStatusTimeout;
  out.erase(std::remove_if(out.begin(), out.end(),
                           [](const std::unique_ptr<Fetched>& f) {
                             return f->result != RedfishStatusOk || f->document.HasParseError();
                           }),
            out.end());
  return RedfishStatusOk;
}

// Walks the LogServices of every system and manager and keeps the one that
// best holds the platform's events; none found leaves cursor.service empty.
int Discover(ReadContext& read, LogCursor& cursor) {
  QueryFeatures features;
  int result = read.Features(features);
  if (result != RedfishStatusOk) return result;
  std::vector<std::string> owners;
  result = MembersOf(read, kSystems, owners);
  if (result != RedfishStatusOk) return result;
  const size_t systems = owners.size();
  result = MembersOf(read, kManagers, owners);
  if (result != RedfishStatusOk) return result;

  std::vector<std::unique_ptr<Fetched>> bodies;
  result = ReadEach(read, owners, bodies);
  if (result != RedfishStatusOk) return result;
  std::set<std::string> underSystems;
  std::vector<std::string> collections;
  for (const auto& body : bodies) {
    const std::string link = LinkOf(body->document, "LogServices");
    if (!UnderRoot(link)) continue;
    const bool system = std::find(owners.begin(), owners.begin() + static_cast<long>(systems),
                                  body->path) != owners.begin() + static_cast<long>(systems);
    if (system) underSystems.insert(link);
    collections.push_back(link);
  }
  result = ReadEach(read, collections, bodies);
  if (result != RedfishStatusOk) return result;
  std::vector<std::string> services;
  std::set<std::string> servicesUnderSystems;
  for (const auto& body : bodies) {
    std::vector<std::string> ids;
    MemberIds(body->document, ids);
    if (!read.Follow(ids.size())) break;
    for (const std::string& id : ids) {
      if (!UnderRoot(id)) continue;
      services.push_back(id);
      if (underSystems.count(body->path)) servicesUnderSystems.insert(id);
    }
  }
  result = ReadEach(read, services, bodies);
  if (result != RedfishStatusOk) return result;

  LogCursor found;
  found.checked = Now();
  found.topSkip = features.topSkip;
  int best = 0;
  for (const auto& body : bodies) {
    const rapidjson::Value& s = body->document;
    const int score = LogServiceScore(s, servicesUnderSystems.count(body->path) > 0);
    const std::string entries = LinkOf(s, "Entries");
    if (score <= best || !UnderRoot(entries)) continue;
    best = score;
    found.service = body->path;
    found.entries = entries;
    for (auto [name, out] : {std::pair{"Id", &found.id},
                             {"Name", &found.name},
                             {"LogEntryType", &found.entryType},
                             {"OverWritePolicy", &found.policy}}) {
      std::string text;
      JsonString(s, name, text);
      *out = BoundedText(text, LogRecord::kMaxText);
    }
    const rapidjson::Value* max = JsonMember(s, "MaxNumberOfRecords");
    found.maxRecords.reset();
    if (max != nullptr && max->IsInt64() && max->GetInt64() > 0) found.maxRecords = max->GetInt64();
  }
  found.open = std::move(cursor.open);
  cursor = std::move(found);
  TESSEL_LOG(read.Of().Logger(), 5, "Event log: %1 (of %2 log services)",
             cursor.service.empty() ? std::string("none") : cursor.service, services.size());
  return RedfishStatusOk;
}

// One page of entries as listed, with where it came from and where the
// next one is.
struct Page {
  std::string url;
  std::vector<LogRecord> records;
  std::string next;
  std::optional<int64_t> count;
};

// What a read looks at over the pages, bounded: it ends at kMaxPages pages,
// kMaxEntries entries, a page it has read already or an entry it has seen.
class Walk {
 public:
  explicit Walk(ReadContext& read) : read_(read) {}

  // The page at url: 0, the GET's failure, or 20002/20003 for a body that
  // is not an entries collection. Entries listed as links are fetched.
  int Read(const std::string& url, Page& page) {
    page = Page();
    page.url = url;
    if (pages_ == kMaxPages) return Stop("reads at most 128 pages", false);
    if (!urls_.insert(url).second) return Stop("was sent back to " + url, true);
    ++pages_;
    Fetched f;
    const int result = read_.Get(url, f);
    if (result != RedfishStatusOk) return result;
    if (f.document.HasParseError()) {
      NoteFailure(REDFISH_LINK_DOCUMENT, RedfishStatusBadJson, "GET " + url + ": not JSON");
      return RedfishStatusBadJson;
    }
    const rapidjson::Value* members = JsonMember(f.document, "Members");
    if (members == nullptr || !members->IsArray()) {
      NoteFailure(REDFISH_LINK_DOCUMENT, RedfishStatusNoMembers, "GET " + url + ": no Members");
      return RedfishStatusNoMembers;
    }
    const rapidjson::Value* count = JsonMember(f.document, "Members@odata.count");
    if (count != nullptr && count->IsInt64()) page.count = count->GetInt64();
    std::string next;
    if (JsonString(f.document, "Members@odata.nextLink", next) && !next.empty()) {
      if (UnderRoot(next)) {
        page.next = next;
      } else {
        TESSEL_LOG(read_.Of().Logger(), 3, "GET %1: its next page %2 is not the BMC's; stopping",
                   url, next);
      }
    }
    std::vector<std::string> links;
    size_t skipped = 0;
    for (const rapidjson::Value& member : members->GetArray()) {
      if (entries_ == kMaxEntries) {
        page.next.clear();
        Stop("looks at most 4096 entries", false);
        break;
      }
      ++entries_;
      std::string link;
      if (member.IsObject() && member.MemberCount() == 1 && JsonString(member, "@odata.id", link)) {
        links.push_back(link);
        continue;
      }
      LogRecord record;
      if (LogRecordOf(member, record) != RedfishStatusOk) {
        ++skipped;
      } else if (!Keep(std::move(record), page)) {
        return RedfishStatusOk;
      }
    }
    if (!links.empty()) {
      std::vector<std::unique_ptr<Fetched>> bodies;
      read_.GetAll(links, bodies);
      if (read_.Left().count() == 0) return RedfishStatusTimeout;
      for (const auto& body : bodies) {
        LogRecord record;
        if (body->result != RedfishStatusOk || body->document.HasParseError() ||
            LogRecordOf(body->document, record) != RedfishStatusOk) {
          ++skipped;
        } else if (!Keep(std::move(record), page)) {
          return RedfishStatusOk;
        }
      }
    }
    if (skipped > 0) {
      TESSEL_LOG(read_.Of().Logger(), 3, "GET %1: %2 members are not log entries; passed over", url,
                 skipped);
    }
    return RedfishStatusOk;
  }

  // The read ended at a bound or a loop, not at the log's end.
  bool Bounded() const { return bounded_; }
  // At a bound, not a loop: the next read goes on from there.
  bool MoreToRead() const { return bounded_ && !loop_; }

 private:
  bool Keep(LogRecord&& record, Page& page) {
    if (!marks_.insert(record.id + '\n' + record.created).second) {
      Stop("was given entry " + record.id + " twice", true);
      page.next.clear();
      return false;
    }
    page.records.push_back(std::move(record));
    return true;
  }

  int Stop(const std::string& why, bool loop) {
    if (!bounded_) {
      TESSEL_LOG(read_.Of().Logger(), 3, "Event log: the read %1; it ends there", why);
    }
    loop_ = loop_ || loop;
    bounded_ = true;
    return RedfishStatusOk;
  }

  ReadContext& read_;
  size_t pages_ = 0;
  size_t entries_ = 0;
  bool bounded_ = false;
  bool loop_ = false;
  std::set<std::string> urls_;
  std::unordered_set<std::string> marks_;
};

// A page the cursor may name; a longer one is read from the log's start.
std::string PageToKeep(const std::string& page) {
  return page.size() <= LogCursor::kMaxPath ? page : std::string();
}

// An entry listed with the page that held it.
struct Listed {
  LogRecord record;
  std::string page;
};

// What a read has listed so far.
struct Listing {
  explicit Listing(ReadContext& read) : walk(read) {}
  Walk walk;
  std::vector<Listed> listed;
  std::optional<int64_t> count;  // Members@odata.count of the first page
  bool timedOut = false;         // the budget ran out after the first page

  bool Complete() const { return !walk.Bounded() && !timedOut; }
  // Where the entry is listed, or npos.
  size_t Find(const EntryMark& mark) const {
    for (size_t i = 0; i < listed.size(); ++i) {
      if (mark.Matches(listed[i].record)) return i;
    }
    return std::string::npos;
  }
};

// Reads pages from url on while more(first entry of the page) says so.
// Returns 0 or a page's failure; a budget spent after the first page ends
// the walk early (timedOut).
int ReadPages(ReadContext& read, Listing& l, std::string url,
              const std::function<bool(size_t)>& more) {
  bool first = l.listed.empty();
  while (!url.empty()) {
    Page page;
    const int result = l.walk.Read(url, page);
    if (result == RedfishStatusTimeout && !first && read.Left().count() == 0) {
      l.timedOut = true;
      return RedfishStatusOk;
    }
    if (result != RedfishStatusOk) return result;
    if (first && page.count) l.count = page.count;
    first = false;
    const size_t from = l.listed.size();
    for (LogRecord& r : page.records) l.listed.push_back({std::move(r), page.url});
    if (!more(from)) break;
    url = page.next;
  }
  return RedfishStatusOk;
}

std::string WithQuery(const std::string& path, const std::string& query) {
  return path + (path.find('?') == std::string::npos ? '?' : '&') + query;
}

// The entries listed after position at (oldest first) or before it (newest
// first), oldest first.
void Newer(const std::vector<Listed>& listed, size_t at, LogOrder order,
           std::vector<LogRecord>& fresh) {
  if (order == LogOrder::NewestFirst) {
    for (size_t i = at; i-- > 0;) fresh.push_back(listed[i].record);
  } else {
    for (size_t i = at + 1; i < listed.size(); ++i) fresh.push_back(listed[i].record);
  }
}

// Every entry listed, oldest first.
void All(const std::vector<Listed>& listed, LogOrder order, std::vector<LogRecord>& fresh) {
  for (const Listed& l : listed) fresh.push_back(l.record);
  if (order == LogOrder::NewestFirst) std::reverse(fresh.begin(), fresh.end());
}

// From a listing of the log from its start: what is new since the cursor
// (everything, without one), and where the cursor stands now.
int Conclude(ReadContext& read, LogCursor& c, const Listing& l, std::vector<LogRecord>& fresh,
             LogOutcome& out) {
  std::vector<LogRecord> records;
  for (const Listed& x : l.listed) records.push_back(x.record);
  const LogOrder detected = DetectOrder(records);
  if (detected != LogOrder::Unknown) c.order = detected;
  const LogOrder as = c.order == LogOrder::NewestFirst ? c.order : LogOrder::OldestFirst;
  // A partial newest-first listing lacks the oldest new entries: try again.
  if (as == LogOrder::NewestFirst && l.timedOut) return RedfishStatusTimeout;
  out.count = l.count;
  const size_t at = c.last ? l.Find(*c.last) : std::string::npos;
  if (!c.last) {
    All(l.listed, as, fresh);
    if (as == LogOrder::NewestFirst && l.walk.Bounded()) {
      // The oldest entries lie beyond what a read looks at.
      if (l.count && *l.count > static_cast<int64_t>(l.listed.size())) {
        out.missed = static_cast<uint64_t>(*l.count) - l.listed.size();
      } else {
        out.missedUnknown = true;
      }
    }
  } else if (at != std::string::npos) {
    Newer(l.listed, at, as, fresh);
  } else {
    // The last entry read is gone. When the log still begins where it did,
    // entries were deleted one by one: only those after its time are new.
    // When it begins elsewhere, it was cleared or wrapped past it: all are.
    const Listed* oldest = l.listed.empty()              ? nullptr
                           : as == LogOrder::OldestFirst ? &l.listed.front()
                           : l.Complete()                ? &l.listed.back()
                                                         : nullptr;
    const auto lastTime = ParseRedfishTime(c.last->created);
    if (!l.Complete() && (oldest == nullptr || (c.oldest && c.oldest->Matches(oldest->record)))) {
      // More entries than a read looks at lie before it: it may be further on.
      TESSEL_LOG(read.Of().Logger(), 3,
                 "Event log: entry %1 is not among the first %2 listed; nothing is taken as new",
                 c.last->id, l.listed.size());
      return RedfishStatusOk;
    }
    if (oldest != nullptr && c.oldest && c.oldest->Matches(oldest->record) && lastTime) {
      std::vector<LogRecord> all;
      All(l.listed, as, all);
      for (LogRecord& r : all) {
        if (r.time && *r.time > *lastTime) fresh.push_back(std::move(r));
      }
    } else {
      All(l.listed, as, fresh);
      out.restarted = true;
      TESSEL_LOG(read.Of().Logger(), 5,
                 "Event log: entry %1 is gone: the log was cleared or "
                 "wrapped, and is read from its start",
                 c.last->id);
      if (as == LogOrder::NewestFirst && l.walk.Bounded()) out.missedUnknown = true;
    }
  }
  out.more = as == LogOrder::OldestFirst && (l.walk.MoreToRead() || l.timedOut);
  if (l.listed.empty()) {
    c.last.reset();
    c.oldest.reset();
    c.page.clear();
    c.index.reset();
  } else if (as == LogOrder::NewestFirst) {
    c.last = MarkOf(l.listed.front().record);
    c.page.clear();
    c.index.reset();
    if (l.Complete()) c.oldest = MarkOf(l.listed.back().record);
  } else {
    c.last = MarkOf(l.listed.back().record);
    c.page = PageToKeep(l.listed.back().page);
    c.index = l.listed.size() - 1;
    c.oldest = MarkOf(l.listed.front().record);
  }
  return RedfishStatusOk;
}

// The log read from its start.
int ReadWhole(ReadContext& read, LogCursor& c, std::vector<LogRecord>& fresh, LogOutcome& out) {
  Listing l(read);
  const int result = ReadPages(read, l, c.entries, [](size_t) { return true; });
  if (result != RedfishStatusOk) return result;
  return Conclude(read, c, l, fresh, out);
}

// A newest-first log: from its start to the last entry read, which is one
// request (its first page, or with $top its first entry) when nothing is new.
int ReadNewestFirst(ReadContext& read, LogCursor& c, std::vector<LogRecord>& fresh,
                    LogOutcome& out) {
  Listing l(read);
  std::string start = c.entries;
  if (c.topSkip) {
    Page probe;
    const std::string url = WithQuery(c.entries, "$top=1");
    const int result = l.walk.Read(url, probe);
    if (Refused(result)) {
      c.topSkip = false;
      return ReadNewestFirst(read, c, fresh, out);
    }
    if (result != RedfishStatusOk) return result;
    out.count = l.count = probe.count;
    if (probe.records.empty()) return ReadWhole(read, c, fresh, out);
    if (c.last->Matches(probe.records.front())) return RedfishStatusOk;
    l.listed.push_back({std::move(probe.records.front()), url});
    start = WithQuery(c.entries, "$skip=1");
  }
  size_t at = std::string::npos;
  const int result = ReadPages(read, l, start, [&](size_t from) {
    for (size_t i = from; i < l.listed.size() && at == std::string::npos; ++i) {
      if (c.last->Matches(l.listed[i].record)) at = i;
    }
    return at == std::string::npos;
  });
  if (result != RedfishStatusOk) return result;
  if (l.timedOut) return RedfishStatusTimeout;
  out.count = l.count;
  if (at == std::string::npos && l.walk.Bounded()) {
    // More new entries than a read looks at: the newest are returned.
    All(l.listed, LogOrder::NewestFirst, fresh);
    out.missedUnknown = true;
    c.last = MarkOf(l.listed.front().record);
    return RedfishStatusOk;
  }
  if (at == std::string::npos) return Conclude(read, c, l, fresh, out);
  Newer(l.listed, at, LogOrder::NewestFirst, fresh);
  if (!fresh.empty()) c.last = MarkOf(fresh.back());
  return RedfishStatusOk;
}

// An oldest-first log: from the last entry read to the end. It is looked
// for at its place (with $skip) or on the page that held it: one request
// when nothing is new. Anywhere else, the log is read from its start.
int ReadOldestFirst(ReadContext& read, LogCursor& c, std::vector<LogRecord>& fresh,
                    LogOutcome& out) {
  Listing l(read);
  const bool skip = c.topSkip && c.index;
  const std::string start = skip ? WithQuery(c.entries, "$skip=" + std::to_string(*c.index))
                                 : (c.page.empty() ? c.entries : c.page);
  size_t at = std::string::npos;
  const int result = ReadPages(read, l, start, [&](size_t from) {
    if (from > 0) return true;
    // With $skip the entry must open the page; a page that holds it
    // elsewhere was not skipped as asked.
    const size_t found = l.Find(*c.last);
    if (found != std::string::npos && (!skip || found == 0)) at = found;
    return at != std::string::npos;
  });
  if (Refused(result) && skip) {
    c.topSkip = false;
    return ReadOldestFirst(read, c, fresh, out);
  }
  if (result != RedfishStatusOk) return result;
  if (at == std::string::npos) return ReadWhole(read, c, fresh, out);
  out.count = l.count;
  Newer(l.listed, at, LogOrder::OldestFirst, fresh);
  out.more = l.walk.MoreToRead() || l.timedOut;
  if (!fresh.empty()) {
    c.last = MarkOf(l.listed.back().record);
    c.page = PageToKeep(l.listed.back().page);
    if (skip) c.index = *c.index + (l.listed.size() - 1 - at);
  }
  return RedfishStatusOk;
}

int ReadNew(ReadContext& read, LogCursor& c, std::vector<LogRecord>& fresh, LogOutcome& out) {
  if (!c.last || c.order == LogOrder::Unknown) return ReadWhole(read, c, fresh, out);
  if (c.order == LogOrder::NewestFirst) return ReadNewestFirst(read, c, fresh, out);
  return ReadOldestFirst(read, c, fresh, out);
}

}  // namespace

int ReadLogEntries(ReadContext& read, const char* cursorText, std::string& document) {
  LogCursor cursor;
  ReadMemory& memory = read.Of().memory;
  if (cursorText != nullptr && *cursorText != '\0') {
    if (!ParseCursor(cursorText, cursor)) {
      NoteFailure(REDFISH_LINK_GUARD, RedfishStatusInvalidArgument,
                  "the cursor is not one that Redfish_GetLogEntries returned");
      return RedfishStatusInvalidArgument;
    }
  } else {
    std::lock_guard<std::mutex> lock(memory.mutex);
    if (!memory.logFound.empty()) ParseCursor(memory.logFound, cursor);
  }
  bool walked = false;
  auto walk = [&]() -> int {
    const int result = Discover(read, cursor);
    if (result != RedfishStatusOk) return result;
    walked = true;
    LogCursor found = cursor;
    found.open.clear();
    std::lock_guard<std::mutex> lock(memory.mutex);
    memory.logFound = WriteCursor(found);
    return RedfishStatusOk;
  };
  if (cursor.service.empty() && Now() - cursor.checked >= kRecheckSeconds) {
    const int result = walk();
    if (result != RedfishStatusOk) return result;
  }
  std::vector<LogRecord> fresh;
  LogOutcome outcome;
  if (!cursor.service.empty()) {
    int result = ReadNew(read, cursor, fresh, outcome);
    if (result == ResponseCode::NotFound && !walked) {
      // The log is no longer where it was (new firmware, new ids): find it
      // again and read it whole.
      TESSEL_LOG(read.Of().Logger(), 3, "Event log: %1 is gone; looking for the log again",
                 cursor.entries);
      result = walk();
      if (result == RedfishStatusOk && !cursor.service.empty()) {
        result = ReadNew(read, cursor, fresh, outcome);
        outcome.restarted = true;
      }
    }
    if (result != RedfishStatusOk) return result;
  }
  ResolvePairs(fresh, cursor.open);
  document = LogDocument(cursor, fresh, outcome);
  return RedfishStatusOk;
}

}  // namespace redfish
