#pragma once

// One read of the 1.1 calls: a whole-read deadline passed down to every
// request, a bound on the members it follows, at most four requests in flight
// to the BMC, and query options used only where the service root advertises
// them. The 1.0 functions do not use it: their requests are fixed.

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include "resources/read_memory.h"

namespace redfish {

class Inventory;

enum class QueryOption { Select, Expand };

// A GET's outcome: the result (0, the HTTP status, a transport code or 10003
// for a spent budget), the body as sent and, for 0, the body parsed (check
// HasParseError before reading it).
struct Fetched {
  int result = 0;
  std::string path;  // as asked, without the base URL
  std::string body;
  rapidjson::Document document;
};

class ReadContext {
 public:
  // At most this many requests in flight to one BMC.
  static constexpr size_t kMaxInFlight = 4;
  // A read follows at most this many members, whatever the BMC lists.
  static constexpr size_t kMaxMembers = 4096;

  // A read that must end budget after now.
  ReadContext(Inventory& inventory, std::chrono::milliseconds budget);
  ReadContext(const ReadContext&) = delete;
  ReadContext& operator=(const ReadContext&) = delete;

  // The query options this BMC takes: the service root is read on the
  // connection's first 1.1 read (one GET) and kept; a root that cannot be
  // read advertises nothing. 0, or 10003 when the budget is spent.
  int Features(QueryFeatures& features);

  // GETs path ("/redfish/v1/...", the base URL is added) within what is left
  // of the budget, and parses the body. Returns fetched.result.
  int Get(const std::string& path, Fetched& fetched);

  // GETs each path, at most kMaxInFlight at once; out[i] answers paths[i].
  // Returns 0 when every GET was answered 200 (each out[i].result says), or
  // 10003 when the budget ran out (the paths not sent then hold 10003).
  int GetAll(const std::vector<std::string>& paths, std::vector<std::unique_ptr<Fetched>>& out);

  // GETs path with "?" + query when the BMC takes option (Features); a BMC
  // that answers 501 or 400 to it has the option marked refused for the
  // connection and the plain path is read instead, once. applied says
  // whether the answer is the query's. Returns fetched.result.
  int GetWithQuery(const std::string& path, QueryOption option, const std::string& query,
                   Fetched& fetched, bool& applied);

  // Claims count more members to follow: false (and the claim refused) when
  // the read would then follow more than kMaxMembers. The caller leaves the
  // rest out or fails, and says so (Bounded names the bound for its record).
  bool Follow(size_t count);
  static std::string Bounded(const std::string& what);

  // Time left of the budget; zero once it is spent.
  std::chrono::milliseconds Left() const;
  size_t RequestsMade() const { return requests_; }
  Inventory& Of() const { return inventory_; }

 private:
  int Spent();

  Inventory& inventory_;
  std::chrono::steady_clock::time_point deadline_;
  std::chrono::milliseconds budget_;
  size_t members_ = 0;
  size_t requests_ = 0;
};

}  // namespace redfish
