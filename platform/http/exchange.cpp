// One HTTP exchange on libcurl: building the transfer from a request, the
// transfer's callbacks on the I/O thread, and turning its end into a response
// or one of the platform's exceptions.
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "platform/http/pool_worker.h"

namespace Tessel::Http {
namespace {

constexpr int kTimedOut = 110;  // ETIMEDOUT
// An exchange the server keeps leaving out of its GOAWAYs fails after this
// many resends.
constexpr int kMaxResends = 5;

bool IsValidTarget(const std::string& t) {
  if (t.empty() || t[0] != '/') return false;
  return std::none_of(t.begin(), t.end(), [](char c) {
    auto u = static_cast<unsigned char>(c);
    return u <= 0x20 || u == 0x7f;
  });
}

bool NameIs(const std::string& name, const char* wanted) {
  return strcasecmp(name.c_str(), wanted) == 0;
}

void Set(CURL* easy, CURLoption option, long value) {
  if (curl_easy_setopt(easy, option, value) != CURLE_OK) {
    throw Exception("libcurl refused option " + std::to_string(static_cast<int>(option)));
  }
}

template <typename T>
void Set(CURL* easy, CURLoption option, T* value) {
  if (curl_easy_setopt(easy, option, value) != CURLE_OK) {
    throw Exception("libcurl refused option " + std::to_string(static_cast<int>(option)));
  }
}

void AppendHeader(curl_slist*& list, const std::string& line) {
  curl_slist* next = curl_slist_append(list, line.c_str());
  if (next == nullptr) throw Exception("out of memory building request headers");
  list = next;
}

std::string_view Trim(std::string_view v) {
  while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.remove_prefix(1);
  while (!v.empty() &&
         (v.back() == '\r' || v.back() == '\n' || v.back() == ' ' || v.back() == '\t')) {
    v.remove_suffix(1);
  }
  return v;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// The decimal number after `key` in `text`, or -1.
int64_t NumberAfter(std::string_view text, std::string_view key) {
  size_t at = text.find(key);
  if (at == std::string_view::npos) return -1;
  int64_t n = -1;
  for (size_t i = at + key.size(); i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    n = (n < 0 ? 0 : n * 10) + (text[i] - '0');
  }
  return n;
}

}  // namespace

void Failure::Throw() const {
  switch (kind) {
    case System:
      throw SystemException(error, message);
    case Timeout:
      throw TimeoutException(message);
    case SslVerify:
      throw Ssl::SSLVerifyException(message);
    case InvalidArgument:
      throw InvalidArgumentException(message);
    case None:
    case Other:
      break;
  }
  throw Exception(message);
}

Exchange::Exchange(Ref<PoolWorker> worker, CompletionCallback callback)
    : worker_(std::move(worker)), callback_(std::move(callback)) {}

Exchange::~Exchange() { ReleaseEasy(); }

void Exchange::ReleaseEasy() noexcept {
  if (easy_ != nullptr) curl_easy_cleanup(easy_);
  easy_ = nullptr;
  if (requestHeaders_ != nullptr) curl_slist_free_all(requestHeaders_);
  requestHeaders_ = nullptr;
  // The body may be large, and a handle may keep the exchange long after.
  std::string().swap(requestBody_);
}

void Exchange::Prepare(const ClientRequest& request, const std::string& origin,
                       const Http2SvcConfig& config, bool tls) {
  const HttpMethod method = request.GetMethod();
  if (method < Get || method > Patch) {
    throw InvalidArgumentException("unknown HTTP method " +
                                   std::to_string(static_cast<int>(method)));
  }
  if (!IsValidTarget(request.GetTarget())) {
    throw InvalidArgumentException("invalid request target '" + request.GetTarget() + "'");
  }

  easy_ = curl_easy_init();
  if (easy_ == nullptr) throw Exception("libcurl could not create a transfer");
  maxBodyBytes_ = config.maxResponseBodyBytes;
  tls_ = tls;

  std::string url;
  url.reserve(origin.size() + request.GetTarget().size());
  url.append(origin).append(request.GetTarget());
  Set(easy_, CURLOPT_URL, url.c_str());
  Set(easy_, CURLOPT_PRIVATE, this);
  Set(easy_, CURLOPT_ERRORBUFFER, errorText_);
  Set(easy_, CURLOPT_NOSIGNAL, 1L);
  // The endpoint is fixed; an HTTP proxy named in the environment must not
  // get between us and it.
  Set(easy_, CURLOPT_PROXY, "");
  Set(easy_, CURLOPT_PROTOCOLS_STR, tls ? "https" : "http");
  SetRole(Role::Plain);
  // Wait for the one multiplexed connection rather than opening another.
  Set(easy_, CURLOPT_PIPEWAIT, 1L);
  Set(easy_, CURLOPT_TCP_NODELAY, 1L);
  Set(easy_, CURLOPT_CONNECTTIMEOUT_MS,
      static_cast<long>(std::max<int64_t>(1, (config.connectTimeoutUs + 999) / 1000)));
  Set(easy_, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(config.maxResponseBodyBytes));
  Set(easy_, CURLOPT_PREREQFUNCTION, &Exchange::OnPrereq);
  Set(easy_, CURLOPT_PREREQDATA, this);
  Set(easy_, CURLOPT_OPENSOCKETFUNCTION, &Exchange::OnOpenSocket);
  Set(easy_, CURLOPT_OPENSOCKETDATA, this);
  Set(easy_, CURLOPT_HEADERFUNCTION, &Exchange::OnHeader);
  Set(easy_, CURLOPT_HEADERDATA, this);
  Set(easy_, CURLOPT_WRITEFUNCTION, &Exchange::OnBody);
  Set(easy_, CURLOPT_WRITEDATA, this);
  // libcurl names a request's stream and reports GOAWAY only in its verbose
  // text; both decide whether a request the server dropped is sent again.
  Set(easy_, CURLOPT_DEBUGFUNCTION, &Exchange::OnDebug);
  Set(easy_, CURLOPT_DEBUGDATA, this);
  Set(easy_, CURLOPT_VERBOSE, 1L);
  worker_->ConfigureSocket(easy_);

  bool hasBody = false;
  switch (method) {
    case Get:
      Set(easy_, CURLOPT_HTTPGET, 1L);
      break;
    case Head:
      Set(easy_, CURLOPT_NOBODY, 1L);
      break;
    case Post:
      hasBody = true;
      break;
    case Put:
      Set(easy_, CURLOPT_CUSTOMREQUEST, "PUT");
      hasBody = true;
      break;
    case Patch:
      Set(easy_, CURLOPT_CUSTOMREQUEST, "PATCH");
      hasBody = true;
      break;
    case Delete:
      Set(easy_, CURLOPT_CUSTOMREQUEST, "DELETE");
      hasBody = !request.GetBody().empty();
      break;
  }
  if (hasBody) {
    requestBody_ = request.GetBody();
    Set(easy_, CURLOPT_POST, 1L);
    // No copy inside libcurl: it sends straight from the exchange's buffer.
    Set(easy_, CURLOPT_POSTFIELDS, requestBody_.data());
    Set(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(requestBody_.size()));
  }

  bool hasContentType = false;
  std::string line;
  for (const auto& h : request.GetHeaders()) {
    if (NameIs(h.name, "Content-Type")) hasContentType = true;
    line.assign(h.name);
    // "Name;" is how libcurl sends a header with an empty value.
    if (h.value.empty()) {
      line.push_back(';');
    } else {
      line.append(": ").append(h.value);
    }
    AppendHeader(requestHeaders_, line);
  }
  // libcurl would otherwise label a body as a form, and may add Expect.
  if (hasBody && !hasContentType) AppendHeader(requestHeaders_, "Content-Type:");
  AppendHeader(requestHeaders_, "Expect:");
  Set(easy_, CURLOPT_HTTPHEADER, requestHeaders_);
}

void Exchange::SetRole(Role role) {
  role_ = role;
  long version = CURL_HTTP_VERSION_2_PRIOR_KNOWLEDGE;
  if (tls_) {
    version = CURL_HTTP_VERSION_2TLS;  // HTTP/2 if ALPN agrees, else 1.1
  } else if (role == Role::Reuser) {
    // Plain HTTP/2 on an h2c connection that is already up: nothing is
    // switched again, and no upgrade is offered.
    version = CURL_HTTP_VERSION_2_0;
  }
  Set(easy_, CURLOPT_HTTP_VERSION, version);
  Set(easy_, CURLOPT_FRESH_CONNECT, role == Role::Connector ? 1L : 0L);
}

// Called once the connection is up, just before the request is handed to it.
// libcurl calls it again when it wants to send the same request a second
// time, after an attempt that got no response; it would do so also when the
// connection broke after the server may have acted on the request. Such
// resends are stopped here, and the exchange decides at its end, from what
// the server said, whether a fresh start is safe (WantsRelaunch).
int Exchange::OnPrereq(void* p, char*, char* localIp, int, int localPort) {
  auto* self = static_cast<Exchange*>(p);
  if (self->attempted_) {
    self->resendBlocked_ = true;
    return CURL_PREREQFUNC_ABORT;
  }
  self->attempted_ = true;
  // From here on a byte of the request may leave: never report 110 or 111.
  self->mayHaveBeenSent_ = true;
  self->localPort_ = localPort;
  self->localIp_ = localIp != nullptr ? localIp : "";
  if (self->role_ == Role::Connector) self->worker_->OnConnected(self);
  return CURL_PREREQFUNC_OK;
}

curl_socket_t Exchange::OnOpenSocket(void* p, curlsocktype, curl_sockaddr* address) {
  auto* self = static_cast<Exchange*>(p);
  if (self->attempted_) {
    // A new connection for a second attempt: see OnPrereq.
    self->resendBlocked_ = true;
    return CURL_SOCKET_BAD;
  }
  if (self->role_ == Role::Reuser) {
    // Only the connector opens connections; this transfer starts over.
    self->wantsConnection_ = true;
    return CURL_SOCKET_BAD;
  }
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int Exchange::OnDebug(CURL*, curl_infotype type, char* data, size_t size, void* p) {
  if (type != CURLINFO_TEXT) return 0;
  auto* self = static_cast<Exchange*>(p);
  std::string_view text(data, size);
  if (StartsWith(text, "Using Stream ID: ")) {
    self->streamId_ = NumberAfter(text, "ID: ");
  } else if (text.find("GOAWAY") != std::string_view::npos) {
    const int64_t last = NumberAfter(text, "last_stream=");
    if (last >= 0 && self->attempted_) self->worker_->OnGoaway(*self, last);
  }
  return 0;
}

void Exchange::NoteGoaway(const Exchange& reporter, int64_t lastStreamId) noexcept {
  if (!SameConnection(reporter)) return;
  if (goawayLast_ < 0 || lastStreamId < goawayLast_) goawayLast_ = lastStreamId;
}

bool Exchange::WantsRelaunch(CURLcode code) const noexcept {
  if (code == CURLE_OK || gotResponse_) return false;
  // Refused a connection of its own before its request was handed over.
  if (!attempted_) return wantsConnection_;
  // The server's GOAWAY says it did not process streams above its last id.
  return resends_ < kMaxResends && streamId_ > 0 && goawayLast_ >= 0 && streamId_ > goawayLast_;
}

bool Exchange::SameConnection(const Exchange& other) const noexcept {
  return other.OnConnection(localPort_, localIp_) && attempted_;
}

void Exchange::PrepareRelaunch() {
  if (attempted_) ++resends_;
  attempted_ = false;
  resendBlocked_ = false;
  wantsConnection_ = false;
  streamId_ = 0;
  goawayLast_ = -1;
  localPort_ = 0;
  errorText_[0] = '\0';
  responseHeaders_.clear();
  responseBody_.clear();
}

size_t Exchange::OnHeader(char* data, size_t size, size_t count, void* p) {
  auto* self = static_cast<Exchange*>(p);
  const size_t total = size * count;
  self->gotResponse_ = true;
  std::string_view line(data, total);
  if (StartsWith(line, "HTTP/")) {
    // A new status line: headers of an earlier (informational) response go.
    self->responseHeaders_.clear();
    return total;
  }
  if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
    // Folded continuation of the previous header (HTTP/1.1 only).
    if (!self->responseHeaders_.empty()) {
      self->responseHeaders_.back().value.append(" ").append(Trim(line));
    }
    return total;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return total;  // the blank line, or junk
  Header h{std::string(line.substr(0, colon)), std::string(Trim(line.substr(colon + 1)))};
  if (NameIs(h.name, "Content-Length")) {
    // Size the body once instead of growing it through many copies.
    char* end = nullptr;
    unsigned long long length = std::strtoull(h.value.c_str(), &end, 10);
    if (end != h.value.c_str() && length <= static_cast<uint64_t>(self->maxBodyBytes_)) {
      self->responseBody_.reserve(static_cast<size_t>(length));
    }
  }
  self->responseHeaders_.push_back(std::move(h));
  return total;
}

size_t Exchange::OnBody(char* data, size_t size, size_t count, void* p) {
  auto* self = static_cast<Exchange*>(p);
  const size_t total = size * count;
  if (self->responseBody_.size() + total > static_cast<uint64_t>(self->maxBodyBytes_)) {
    self->bodyTooLarge_ = true;
    return 0;  // fails the transfer with CURLE_WRITE_ERROR
  }
  self->responseBody_.append(data, total);
  return total;
}

Failure Exchange::Classify(CURLcode code) {
  std::string text = errorText_[0] != '\0' ? std::string(errorText_) : curl_easy_strerror(code);
  if (resendBlocked_) {
    return {Failure::Other, 0,
            "the connection failed after the request was sent, which may have been processed; "
            "it is not sent again (" +
                text + ")"};
  }
  if (bodyTooLarge_ || code == CURLE_FILESIZE_EXCEEDED) {
    return {Failure::Other, 0,
            "response body larger than " + std::to_string(maxBodyBytes_) + " bytes"};
  }
  long osErrno = 0;
  curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &osErrno);
  switch (code) {
    case CURLE_PEER_FAILED_VERIFICATION:
      return {Failure::SslVerify, 0, text};
    case CURLE_URL_MALFORMAT:
    case CURLE_BAD_FUNCTION_ARGUMENT:
      return {Failure::InvalidArgument, 0, text};
    case CURLE_COULDNT_CONNECT:
      // Callers send again on 110 and 111: only for requests never sent.
      if (!mayHaveBeenSent_ && osErrno != 0)
        return {Failure::System, static_cast<int>(osErrno), text};
      break;
    case CURLE_OPERATION_TIMEDOUT:
      // No overall transfer limit is set, so this is the connect limit.
      if (!mayHaveBeenSent_) return {Failure::System, kTimedOut, text};
      break;
    default:
      break;
  }
  return {Failure::Other, 0, text};
}

Failure Exchange::Complete(CURLcode code) {
  Failure failure;
  if (code == CURLE_OK) {
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 100 && status <= 999) {
      Publish(MakeRef<ClientResponse>(static_cast<int>(status), std::move(responseHeaders_),
                                      std::move(responseBody_)),
              Failure{});
      return failure;
    }
    failure = Failure{Failure::Other, 0, "response without a valid status"};
  } else {
    failure = Classify(code);
  }
  Publish(nullptr, failure);
  return failure;
}

Failure Exchange::ForThisExchange(Failure failure) const {
  // Another transfer's connect failure, given to one that was sent once
  // before (and declared unprocessed): it must not read as "never sent".
  if (mayHaveBeenSent_ && failure.kind == Failure::System) failure.kind = Failure::Other;
  return failure;
}

void Exchange::Fail(Failure failure) { Publish(nullptr, ForThisExchange(std::move(failure))); }

void Exchange::Publish(Ref<ClientResponse> response, Failure failure) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::Pending) return;  // cancelled: the waiter has gone
    state_ = State::Done;
    response_ = std::move(response);
    failure_ = std::move(failure);
  }
  ended_.notify_all();
  if (callback_) {
    try {
      callback_();
    } catch (const std::exception& e) {
      worker_->LogCallbackFailure(e.what());
    } catch (...) {
      worker_->LogCallbackFailure("unknown exception");
    }
  }
}

bool Exchange::IsCancelled() {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_ == State::Cancelled;
}

bool Exchange::Wait(int64_t limitUs) {
  // Far beyond any real limit, and safe from overflow when added to now().
  constexpr int64_t kMaxLimitUs = int64_t{1} << 50;
  const auto deadline =
      std::chrono::steady_clock::now() +
      std::chrono::microseconds(std::min(std::max<int64_t>(limitUs, 0), kMaxLimitUs));
  std::unique_lock<std::mutex> lock(mutex_);
  return ended_.wait_until(lock, deadline, [this] { return state_ != State::Pending; });
}

bool Exchange::MarkCancelled() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::Pending) return false;
  state_ = State::Cancelled;
  return true;
}

void Exchange::GetResult(Ref<ClientResponse>& response) {
  std::lock_guard<std::mutex> lock(mutex_);
  switch (state_) {
    case State::Done:
      if (response_) {
        response = response_;
        return;
      }
      failure_.Throw();
    case State::Cancelled:
      throw TimeoutException("the exchange was cancelled when its wait limit passed");
    case State::Pending:
      break;
  }
  throw Exception("the exchange has not ended");
}

}  // namespace Tessel::Http
