// The HTTP/2 pool: one cleartext connection driven by nghttp2 on the threads
// that wait for its exchanges (leader/follower), the helper thread for
// exchanges with callbacks, and stopping every pool on unload.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <type_traits>

#include "platform/http/connection_pool.h"
#include "platform/tessel/logging.h"

namespace Tessel::Http {
namespace {

constexpr int kMaxResends = 5;  // a server that keeps refusing a request gets it no more often
constexpr int64_t kIdleCheckUs = 20000;
constexpr size_t kReadBuffer = 256 << 10;
constexpr int32_t kStreamWindow = 16 << 20;  // large bodies flow without waiting for updates

std::atomic<Service::Logger*> g_logger{nullptr};
std::atomic<bool> g_unloaded{false};
thread_local const PoolCore* t_callbackCore = nullptr;

Service::Logger* Log() {
  Service::Logger* logger = g_logger.load(std::memory_order_acquire);
  if (logger != nullptr || g_unloaded.load(std::memory_order_acquire)) return logger;
  Ref<Service::Logger> fresh = Service::CreateLogger("http");
  if (g_logger.compare_exchange_strong(logger, fresh.Get())) {
    fresh->AddRef();  // the finaliser releases it
    return fresh.Get();
  }
  return logger;
}

int64_t Now() { return System::GetMonotonicTime(); }

Failure Stopped() { return {Failure::Other, 0, "the HTTP client was stopped"}; }

std::string Authority(const ConnectionSpec& spec) {
  std::string a =
      spec.GetHost().find(':') != std::string::npos ? "[" + spec.GetHost() + "]" : spec.GetHost();
  return a + ":" + std::to_string(spec.GetPort());
}

nghttp2_nv Nv(const std::string& name, const std::string& value) {
  return {reinterpret_cast<uint8_t*>(const_cast<char*>(name.data())),
          reinterpret_cast<uint8_t*>(const_cast<char*>(value.data())), name.size(), value.size(),
          NGHTTP2_NV_FLAG_NONE};
}

// Pools alive, for the finaliser; and helper threads that ended on their own
// and wait to be joined. Trivially destructible (std::mutex is, here), so no
// destructor of it runs at exit before the finaliser or a late pool.
struct Globals {
  std::mutex mutex;
  PoolCore* head = nullptr;
  std::vector<std::thread>* finished = nullptr;  // allocated only while non-empty
  bool closed = false;
};
static_assert(std::is_trivially_destructible<Globals>::value, "Globals must have no destructor");
Globals g_globals;
Globals& G() { return g_globals; }

// Takes the parked threads that are not the calling one.
std::vector<std::thread> TakeFinished() {
  std::vector<std::thread> out, keep;
  std::lock_guard<std::mutex> lock(G().mutex);
  if (G().finished == nullptr) return out;
  for (auto& t : *G().finished) {
    (t.get_id() == std::this_thread::get_id() ? keep : out).push_back(std::move(t));
  }
  delete G().finished;
  G().finished = keep.empty() ? nullptr : new std::vector<std::thread>(std::move(keep));
  return out;
}

void JoinFinishedHelpers() {
  for (auto& t : TakeFinished()) t.join();
}

void JoinOrPark(std::thread& t) {
  if (!t.joinable()) return;
  if (t.get_id() == std::this_thread::get_id()) {
    // A pool dropped in its own callback: the thread ends by itself.
    std::lock_guard<std::mutex> lock(G().mutex);
    if (G().finished == nullptr) G().finished = new std::vector<std::thread>();
    G().finished->push_back(std::move(t));
  } else {
    t.join();
  }
}

}  // namespace

struct Registry {
  static bool Add(PoolCore* c) {
    std::lock_guard<std::mutex> lock(G().mutex);
    if (G().closed) return false;
    c->next_ = G().head;
    if (G().head) G().head->prev_ = c;
    G().head = c;
    return true;
  }
  static void Remove(PoolCore* c) {
    std::lock_guard<std::mutex> lock(G().mutex);
    if (c->prev_) c->prev_->next_ = c->next_;
    if (c->next_) c->next_->prev_ = c->prev_;
    if (G().head == c) G().head = c->next_;
    c->prev_ = c->next_ = nullptr;
  }
};

void Failure::Throw() const {
  switch (kind) {
    case System:
      throw SystemException(error, message);
    case Timeout:
      throw TimeoutException(message);
    case InvalidArgument:
      throw InvalidArgumentException(message);
    case None:
    case Other:
      break;
  }
  throw Exception(message);
}

Exchange::Exchange(Ref<PoolCore> core, const ClientRequest& request, CompletionCallback cb)
    : method(request.GetMethod()),
      target(request.GetTarget()),
      body(request.GetBody()),
      callback(std::move(cb)),
      core_(std::move(core)) {
  headers.reserve(request.GetHeaders().size());
  for (const auto& h : request.GetHeaders()) {
    if (!core_) {
      headers.push_back(h);
      continue;
    }
    std::string name = h.name;
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    // Connection-specific fields do not exist in HTTP/2.
    if (name == "connection" || name == "keep-alive" || name == "proxy-connection" ||
        name == "transfer-encoding" || name == "upgrade" || name == "host") {
      continue;
    }
    headers.push_back(Header{std::move(name), h.value});
  }
}

Exchange::~Exchange() = default;

void Exchange::GetResult(Ref<ClientResponse>& out) const {
  if (state == State::Cancelled) throw TimeoutException("the exchange was cancelled by a time-out");
  if (failure.kind != Failure::None) failure.Throw();
  out = response;
}

PoolCore::PoolCore(Ref<ConnectionSpec> spec, const Http2SvcConfig& config)
    : spec_(std::move(spec)), config_(MakeRef<Http2SvcConfig>()) {
  config_->connectTimeoutUs = config.connectTimeoutUs;
  config_->syncSendTimeoutUs = config.syncSendTimeoutUs;
  config_->maxResponseBodyBytes = config.maxResponseBodyBytes;
  config_->maxConcurrentStreams = config.maxConcurrentStreams;
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_ < 0) throw SystemException(errno, "eventfd");
  if (!Registry::Add(this)) stopped_ = true;  // the library is being unloaded
}

PoolCore::~PoolCore() {
  Registry::Remove(this);
  CloseConnection();
  JoinOrPark(helper_);
  close(wake_);
}

size_t PoolCore::ActiveCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return queue_.size() + streams_.size();
}

bool PoolCore::InOwnCallback() const noexcept { return t_callbackCore == this; }

// Only the leader polls, and it only lets go of the mutex to poll: holding
// the mutex with driving_ set means the leader is in (or about to enter)
// poll. One write per poll is enough; the leader drains it under the mutex.
void PoolCore::Wake() {
  if (driving_ && ClaimWake()) SignalWake();
}

bool PoolCore::ClaimWake() {
  if (wakePending_) return false;
  wakePending_ = true;
  return true;
}

void PoolCore::SignalWake() {
  uint64_t one = 1;
  (void)!write(wake_, &one, sizeof one);
}

void PoolCore::Submit(const Ref<Exchange>& ex) {
  if (ex->callback) JoinFinishedHelpers();
  Lock lock(mutex_);
  if (stopped_ || g_unloaded.load(std::memory_order_acquire)) {
    ex->state = Exchange::State::Done;
    ex->failure = Stopped();
    return;
  }
  if (conn_ == Conn::Up && !driving_ && Now() - lastRead_ > kIdleCheckUs) CheckIdleConnection();
  queue_.push_back(ex);
  if (ex->callback) {
    ++callbacksPending_;
    if (!helperStarted_) {
      helperStarted_ = true;
      AddRef();  // the helper's own reference
      try {
        helper_ = std::thread([this] { Helper(); });
      } catch (...) {
        helperStarted_ = false;
        Release();  // the caller's exchange keeps this alive
      }
    }
    helperCv_.notify_one();
  }
  bool wakeLeader = false;
  if (conn_ == Conn::Up) {
    SubmitQueued();
    // A leader polls: it sends this with everything else submitted while it
    // waited, in one send, instead of one send per caller. It is woken after
    // the mutex is let go, so that it does not wake only to wait for it.
    if (driving_) {
      wakeLeader = ClaimWake();
    } else if (!Flush() || brokenErrno_ != 0) {
      Wake();
    }
  } else {
    Wake();  // a leader may have to connect
  }
  lock.unlock();
  if (wakeLeader) SignalWake();
}

// A connection nobody read from for a while may have been closed by the
// server (idle time-out, restart): learn that before putting a request on it.
void PoolCore::CheckIdleConnection() { ReadAvailable(); }

void PoolCore::Wait(Exchange& ex, int64_t limitUs) {
  using State = Exchange::State;
  Lock lock(mutex_);
  if (ex.state == State::Cancelled)
    throw TimeoutException("the exchange was cancelled by a time-out");
  if (ex.state == State::Done) return;
  if (t_callbackCore == this) {
    throw Exception("cannot wait for an exchange of a pool in its own completion callback");
  }
  const int64_t deadline = limitUs > INT64_MAX / 2 ? INT64_MAX : Now() + limitUs;
  ex.waited = true;
  waiters_.push_back(&ex);
  Lead(
      lock, [&] { return ex.state == State::Done; }, deadline, ex.ended);
  waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &ex));
  ex.waited = false;
  if (ex.state == State::Done) return;

  // Time-out: cancel it wherever it is, for good.
  const bool onStream = ex.state == State::OnStream;
  ex.state = State::Cancelled;
  if (ex.callback) --callbacksPending_;
  if (onStream) {
    if (session_ != nullptr &&
        nghttp2_submit_rst_stream(session_, NGHTTP2_FLAG_NONE, ex.streamId, NGHTTP2_CANCEL) == 0) {
      if (!Flush()) Wake();
    }
  } else {
    auto it = std::find_if(queue_.begin(), queue_.end(),
                           [&](const Ref<Exchange>& q) { return q.Get() == &ex; });
    if (it != queue_.end()) queue_.erase(it);
  }
  throw TimeoutException("no response within " + std::to_string(limitUs / 1000) + " ms");
}

void PoolCore::Lead(Lock& lock, const std::function<bool()>& done, int64_t deadline,
                    std::condition_variable& cv) {
  while (!done() && !stopped_) {
    const int64_t now = Now();
    if (now >= deadline) break;
    if (!driving_) {
      driving_ = true;
      DriveOnce(lock, deadline, done);
      driving_ = false;
      if (stopped_) driverGone_.notify_all();
      RunCallbacks(lock);
    } else if (deadline == INT64_MAX) {
      cv.wait(lock);
    } else {
      cv.wait_for(lock, std::chrono::microseconds(deadline - now));
    }
  }
  for (auto& w : toWake_) w->ended.notify_one();
  toWake_.clear();
  if (!driving_) HandOver();
}

// The leader leaves: another waiter takes over the connection.
void PoolCore::HandOver() {
  if (stopped_ || (queue_.empty() && streams_.empty())) return;
  for (Exchange* w : waiters_) {
    if (w->state != Exchange::State::Done) {
      w->ended.notify_one();
      return;
    }
  }
  if (helperWaiting_) helperCv_.notify_one();
}

void PoolCore::RunCallbacks(Lock& lock) {
  if (callbacks_.empty()) return;
  std::vector<Ref<Exchange>> run;
  run.swap(callbacks_);
  lock.unlock();
  for (auto& ex : run) {
    const PoolCore* outer = t_callbackCore;
    t_callbackCore = this;
    try {
      ex->callback();
    } catch (const std::exception& e) {
      Service::LogInternal(Log(), 1, "completion callback for %1 threw: %2", spec_->ToString(),
                           e.what());
    } catch (...) {
      Service::LogInternal(Log(), 1, "completion callback for %1 threw", spec_->ToString());
    }
    t_callbackCore = outer;
  }
  run.clear();
  lock.lock();
}

void PoolCore::Helper() {
  pthread_setname_np(pthread_self(), "http-callback");
  {
    Lock lock(mutex_);
    for (;;) {
      helperCv_.wait(lock, [&] { return stopped_ || callbacksPending_ > 0; });
      if (stopped_) break;
      helperWaiting_ = true;
      Lead(
          lock, [&] { return callbacksPending_ == 0; }, INT64_MAX, helperCv_);
      helperWaiting_ = false;
    }
  }
  Release();
}

void PoolCore::Finish(Exchange& ex, Ref<ClientResponse> response, Failure failure) {
  if (ex.state == Exchange::State::Cancelled || ex.state == Exchange::State::Done) return;
  ex.state = Exchange::State::Done;
  ex.response = std::move(response);
  ex.failure = std::move(failure);
  if (deferWake_) {
    toWake_.push_back(Ref<Exchange>(&ex));
  } else {
    ex.ended.notify_one();
  }
  if (ex.callback && !stopped_) {
    --callbacksPending_;
    callbacks_.push_back(Ref<Exchange>(&ex));
  }
}

void PoolCore::Requeue(const Ref<Exchange>& ex) {
  if (ex->state == Exchange::State::Cancelled) return;
  if (++ex->resends > kMaxResends) {
    Finish(*ex, nullptr,
           {Failure::Other, 0,
            "the server declined the request " + std::to_string(kMaxResends) +
                " times without processing it"});
    return;
  }
  ex->state = Exchange::State::Queued;
  ex->streamId = 0;
  ex->onWire = false;
  ex->status = 0;
  ex->responseHeaders.clear();
  ex->responseBody.clear();
  queue_.push_front(ex);
}

bool PoolCore::DriveOnce(Lock& lock, int64_t deadline, const std::function<bool()>& done) {
  if (conn_ == Conn::None && !queue_.empty()) StartConnect();
  if (conn_ == Conn::Up) SubmitQueued();
  if (session_ != nullptr) Flush();
  if (brokenErrno_ != 0) ConnectionLost(std::strerror(brokenErrno_));
  if (conn_ == Conn::Draining && streams_.empty()) {
    CloseConnection();
    return true;  // the next round opens a new one for what is queued
  }
  if (conn_ == Conn::None && !queue_.empty()) return true;
  if (done()) return true;  // e.g. a connect that failed at once ended it

  pollfd fds[2] = {{wake_, POLLIN, 0}, {fd_, 0, 0}};
  nfds_t n = 1;
  if (fd_ >= 0) {
    if (conn_ == Conn::Connecting) {
      fds[1].events = POLLOUT;
    } else {
      fds[1].events = POLLIN;
      if (outOff_ < out_.size()) fds[1].events |= POLLOUT;
    }
    n = 2;
  }
  int64_t until = deadline;
  if (conn_ == Conn::Connecting) until = std::min(until, connectDeadline_);
  int timeoutMs = -1;
  if (until != INT64_MAX) {
    timeoutMs = static_cast<int>(
        std::min<int64_t>(INT_MAX, std::max<int64_t>(0, (until - Now() + 999) / 1000)));
  }
  const int fd = fd_;
  std::vector<Ref<Exchange>> wake;
  wake.swap(toWake_);
  lock.unlock();
  for (auto& w : wake) w->ended.notify_one();
  wake.clear();
  const int ready = poll(fds, n, timeoutMs);
  lock.lock();
  if (ready < 0) return false;
  struct Defer {
    bool& flag;
    explicit Defer(bool& f) : flag(f) { flag = true; }
    ~Defer() { flag = false; }
  } defer(deferWake_);
  if (fds[0].revents != 0) {
    uint64_t v;
    (void)!read(wake_, &v, sizeof v);
    wakePending_ = false;
  }
  if (stopped_ || fd_ != fd || fd < 0) return ready > 0;
  if (conn_ == Conn::Connecting) {
    if (fds[1].revents != 0) {
      int error = 0;
      socklen_t len = sizeof error;
      getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &len);
      if (error == 0) {
        Connected();
      } else {
        ConnectFailed(error);
      }
    } else if (Now() >= connectDeadline_) {
      ConnectFailed(ETIMEDOUT);
    }
  } else {
    if (fds[1].revents & (POLLIN | POLLERR | POLLHUP)) ReadAvailable();
    if (fd_ >= 0 && (fds[1].revents & POLLOUT)) Flush();
  }
  return ready > 0;
}

int ResolveAddresses(const ConnectionSpec& spec, std::vector<std::string>& out) {
  out.clear();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  std::vector<const char*> names = LoopbackLiterals(spec.GetHost());
  if (names.empty()) names.push_back(spec.GetHost().c_str());
  const std::string port = std::to_string(spec.GetPort());
  int rc = EAI_NONAME;
  std::vector<std::string> v6;
  for (const char* name : names) {
    addrinfo* list = nullptr;
    const int one = getaddrinfo(name, port.c_str(), &hints, &list);
    if (one != 0) {
      if (out.empty() && v6.empty()) rc = one;
      continue;
    }
    rc = 0;
    for (addrinfo* a = list; a != nullptr; a = a->ai_next) {
      std::string raw(reinterpret_cast<const char*>(a->ai_addr), a->ai_addrlen);
      (a->ai_family == AF_INET ? out : v6).push_back(std::move(raw));
    }
    freeaddrinfo(list);
  }
  // IPv4 first: local proxies commonly listen on 127.0.0.1 only.
  out.insert(out.end(), v6.begin(), v6.end());
  return rc;
}

void PoolCore::StartConnect() {
  if (addressIndex_ >= addresses_.size()) {
    addressIndex_ = 0;
    if (const int rc = ResolveAddresses(*spec_, addresses_)) {
      Failure f{Failure::Other, 0, "cannot resolve " + spec_->GetHost() + ": " + gai_strerror(rc)};
      while (!queue_.empty()) {
        Ref<Exchange> ex = queue_.front();
        queue_.pop_front();
        Finish(*ex, nullptr, f);
      }
      return;
    }
    connectDeadline_ = Now() + config_->connectTimeoutUs;
  }
  const std::string& raw = addresses_[addressIndex_];
  const auto* sa = reinterpret_cast<const sockaddr*>(raw.data());
  fd_ = socket(sa->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return ConnectFailed(errno);
  int one = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (const SocketCallback& cb = spec_->GetSocketCallback()) {
    try {
      System::TCPClientSocket socket(fd_);
      cb(&socket);
    } catch (...) {
      return ConnectFailed(ECONNABORTED);
    }
  }
  conn_ = Conn::Connecting;
  if (connect(fd_, sa, static_cast<socklen_t>(raw.size())) == 0) return Connected();
  if (errno != EINPROGRESS) ConnectFailed(errno);
}

void PoolCore::ConnectFailed(int error) {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  conn_ = Conn::None;
  if (error != ETIMEDOUT && ++addressIndex_ < addresses_.size()) return StartConnect();
  addresses_.clear();
  addressIndex_ = 0;
  // Nothing of these requests reached a server: callers may send them again.
  const std::string text = std::string("cannot connect to ") + spec_->ToString() + ": " +
                           (error == ETIMEDOUT ? "connect timed out" : std::strerror(error));
  while (!queue_.empty()) {
    Ref<Exchange> ex = queue_.front();
    queue_.pop_front();
    // One sent before (and declared unprocessed) must not read as never sent.
    Finish(*ex, nullptr,
           ex->everSent ? Failure{Failure::Other, 0, text} : Failure{Failure::System, error, text});
  }
}

void PoolCore::Connected() {
  // The session copies the callbacks; nothing is kept that an unload would leak.
  nghttp2_session_callbacks* callbacks = nullptr;
  int rc = nghttp2_session_callbacks_new(&callbacks);
  if (rc == 0) {
    nghttp2_session_callbacks_set_on_header_callback(callbacks, &PoolCore::OnHeader);
    nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, &PoolCore::OnData);
    nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, &PoolCore::OnFrameRecv);
    nghttp2_session_callbacks_set_on_frame_send_callback(callbacks, &PoolCore::OnFrameSend);
    nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, &PoolCore::OnStreamClose);
    rc = nghttp2_session_client_new(&session_, callbacks, this);
    nghttp2_session_callbacks_del(callbacks);
  }
  addressIndex_ = 0;
  if (rc != 0) {
    session_ = nullptr;
    return ConnectFailed(ENOMEM);
  }
  const nghttp2_settings_entry settings[] = {{NGHTTP2_SETTINGS_ENABLE_PUSH, 0},
                                             {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, kStreamWindow}};
  nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, settings, 2);
  nghttp2_session_set_local_window_size(session_, NGHTTP2_FLAG_NONE, 0, 1 << 30);
  conn_ = Conn::Up;
  goawayLast_ = -1;
  lastRead_ = Now();
  if (in_.empty()) in_.resize(kReadBuffer);
  SubmitQueued();
  Flush();
}

void PoolCore::SubmitQueued() {
  const std::string authority = Authority(*spec_);
  std::vector<nghttp2_nv> nva;
  static const std::string kMethod = ":method", kScheme = ":scheme", kHttp = "http",
                           kAuthority = ":authority", kPath = ":path", kLength = "content-length";
  while (conn_ == Conn::Up && !queue_.empty() && streams_.size() < config_->maxConcurrentStreams) {
    if (!nghttp2_session_check_request_allowed(session_)) {
      conn_ = Conn::Draining;  // stream ids used up, or the session ends: the next connection
      break;
    }
    Ref<Exchange> ex = queue_.front();
    const std::string method = MethodName(ex->method);
    const bool hasBody = ex->HasBody();
    const std::string length = std::to_string(ex->body.size());
    nva.clear();
    nva.push_back(Nv(kMethod, method));
    nva.push_back(Nv(kScheme, kHttp));
    nva.push_back(Nv(kAuthority, authority));
    nva.push_back(Nv(kPath, ex->target));
    bool hasLength = false;
    for (const auto& h : ex->headers) {
      hasLength |= h.name == kLength;
      nva.push_back(Nv(h.name, h.value));
    }
    if (hasBody && !hasLength) nva.push_back(Nv(kLength, length));
    nghttp2_data_provider provider{};
    provider.source.ptr = ex.Get();
    provider.read_callback = &PoolCore::ReadBody;
    ex->bodySent = 0;
    const int32_t id = nghttp2_submit_request(session_, nullptr, nva.data(), nva.size(),
                                              hasBody ? &provider : nullptr, ex.Get());
    queue_.pop_front();
    if (id < 0) {
      Finish(*ex, nullptr, {Failure::Other, 0, nghttp2_strerror(id)});
      continue;
    }
    ex->state = Exchange::State::OnStream;
    ex->streamId = id;
    streams_.emplace(id, std::move(ex));
  }
}

// Gathers every frame nghttp2 has ready into one buffer and writes it with
// one send: many waiting callers' requests leave together.
bool PoolCore::Flush() {
  if (session_ == nullptr || fd_ < 0 || brokenErrno_ != 0) return brokenErrno_ == 0;
  for (;;) {
    if (outOff_ == out_.size()) {
      out_.clear();
      outOff_ = 0;
      while (out_.size() < (1u << 20)) {
        const uint8_t* data = nullptr;
        const ssize_t n = nghttp2_session_mem_send(session_, &data);
        if (n < 0) {
          brokenErrno_ = EPROTO;
          return false;
        }
        if (n == 0) break;
        out_.append(reinterpret_cast<const char*>(data), static_cast<size_t>(n));
      }
      if (out_.empty()) return true;
    }
    const ssize_t w =
        send(fd_, out_.data() + outOff_, out_.size() - outOff_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (w < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) brokenErrno_ = errno;
      return false;
    }
    outOff_ += static_cast<size_t>(w);
  }
}

void PoolCore::ReadAvailable() {
  while (fd_ >= 0 && session_ != nullptr) {
    const ssize_t n = recv(fd_, in_.data(), in_.size(), MSG_DONTWAIT);
    if (n > 0) {
      lastRead_ = Now();
      const ssize_t rv = nghttp2_session_mem_recv(session_, in_.data(), static_cast<size_t>(n));
      if (rv < 0) return ConnectionLost(nghttp2_strerror(static_cast<int>(rv)));
      if (static_cast<size_t>(n) < in_.size()) break;
      continue;
    }
    if (n == 0) return ConnectionLost("the server closed the connection");
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) break;
    return ConnectionLost(std::strerror(errno));
  }
  if (session_ == nullptr) return;
  if (conn_ == Conn::Up) SubmitQueued();
  Flush();
  if (brokenErrno_ != 0 && !driving_) return ConnectionLost(std::strerror(brokenErrno_));
  // A connection error (a frame that breaks the protocol, bytes that are not
  // HTTP/2) reads as success: nghttp2 queues a GOAWAY and ends the session
  // once it is written. Nothing more comes on this connection.
  if (!nghttp2_session_want_read(session_) && !nghttp2_session_want_write(session_)) {
    ConnectionLost(sessionError_.empty() ? "the HTTP/2 session ended" : sessionError_);
  }
}

void PoolCore::ConnectionLost(const std::string& why) {
  std::unordered_map<int32_t, Ref<Exchange>> streams;
  streams.swap(streams_);
  for (auto& [id, ex] : streams) {
    if (ex->state != Exchange::State::OnStream) continue;
    // Not on the wire yet, or declared unprocessed by the server's GOAWAY.
    if (!ex->onWire || (goawayLast_ >= 0 && id > goawayLast_)) {
      Requeue(ex);
    } else {
      Finish(*ex, nullptr,
             {Failure::Other, 0,
              "the connection failed after the request was sent, which may have been processed; "
              "it is not sent again (" +
                  why + ")"});
    }
  }
  CloseConnection();
}

void PoolCore::CloseConnection() {
  streams_.clear();
  if (session_ != nullptr) nghttp2_session_del(session_);
  session_ = nullptr;
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  conn_ = Conn::None;
  out_.clear();
  outOff_ = 0;
  brokenErrno_ = 0;
  goawayLast_ = -1;
  sessionError_.clear();
}

int PoolCore::OnHeader(nghttp2_session*, const nghttp2_frame* frame, const uint8_t* name,
                       size_t namelen, const uint8_t* value, size_t valuelen, uint8_t, void* p) {
  auto* self = static_cast<PoolCore*>(p);
  if (frame->hd.type != NGHTTP2_HEADERS) return 0;
  auto it = self->streams_.find(frame->hd.stream_id);
  if (it == self->streams_.end()) return 0;
  Exchange& ex = *it->second;
  std::string_view n(reinterpret_cast<const char*>(name), namelen);
  std::string_view v(reinterpret_cast<const char*>(value), valuelen);
  if (n == ":status") {
    // A final status after an informational one starts the headers afresh.
    ex.responseHeaders.clear();
    ex.status = 0;
    for (char c : v) ex.status = c >= '0' && c <= '9' ? ex.status * 10 + (c - '0') : 1000;
    return 0;
  }
  if (n.empty() || n[0] == ':') return 0;
  if (n == "content-length" && frame->headers.cat == NGHTTP2_HCAT_RESPONSE) {
    uint64_t length = 0;
    for (char c : v) {
      length = c >= '0' && c <= '9' && length < (UINT64_MAX - 9) / 10 ? length * 10 + (c - '0')
                                                                      : UINT64_MAX;
    }
    if (length > static_cast<uint64_t>(self->config_->maxResponseBodyBytes)) {
      ex.tooLarge = true;
      return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;  // resets the stream
    }
    ex.responseBody.reserve(static_cast<size_t>(length));  // one allocation for the body
  }
  ex.responseHeaders.push_back(Header{std::string(n), std::string(v)});
  return 0;
}

int PoolCore::OnData(nghttp2_session* session, uint8_t, int32_t stream, const uint8_t* data,
                     size_t len, void* p) {
  auto* self = static_cast<PoolCore*>(p);
  auto it = self->streams_.find(stream);
  if (it == self->streams_.end()) return 0;
  Exchange& ex = *it->second;
  if (ex.tooLarge) return 0;
  if (ex.responseBody.size() + len > static_cast<uint64_t>(self->config_->maxResponseBodyBytes)) {
    ex.tooLarge = true;
    nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, stream, NGHTTP2_CANCEL);
    return 0;
  }
  // The one copy of the body inside the client: from the read buffer into
  // the string that the response then takes by move.
  ex.responseBody.append(reinterpret_cast<const char*>(data), len);
  return 0;
}

int PoolCore::OnFrameRecv(nghttp2_session*, const nghttp2_frame* frame, void* p) {
  auto* self = static_cast<PoolCore*>(p);
  if (frame->hd.type == NGHTTP2_GOAWAY) {
    self->goawayLast_ = frame->goaway.last_stream_id;
    if (self->conn_ == Conn::Up) self->conn_ = Conn::Draining;
  }
  return 0;
}

int PoolCore::OnFrameSend(nghttp2_session*, const nghttp2_frame* frame, void* p) {
  auto* self = static_cast<PoolCore*>(p);
  if (frame->hd.type == NGHTTP2_GOAWAY && frame->goaway.error_code != NGHTTP2_NO_ERROR) {
    // nghttp2 ends the connection for what the server sent; say why.
    const auto& goaway = frame->goaway;
    self->sessionError_ =
        std::string("HTTP/2 connection error ") + nghttp2_http2_strerror(goaway.error_code);
    if (goaway.opaque_data_len > 0) {
      self->sessionError_ += ": " + std::string(reinterpret_cast<const char*>(goaway.opaque_data),
                                                goaway.opaque_data_len);
    }
  }
  if (frame->hd.type != NGHTTP2_HEADERS) return 0;
  auto it = self->streams_.find(frame->hd.stream_id);
  if (it != self->streams_.end()) {
    it->second->onWire = true;
    it->second->everSent = true;
  }
  return 0;
}

int PoolCore::OnStreamClose(nghttp2_session*, int32_t stream, uint32_t error, void* p) {
  auto* self = static_cast<PoolCore*>(p);
  auto it = self->streams_.find(stream);
  if (it == self->streams_.end()) return 0;
  Ref<Exchange> ex = std::move(it->second);
  self->streams_.erase(it);
  if (ex->state != Exchange::State::OnStream) return 0;
  if (ex->tooLarge) {
    self->Finish(*ex, nullptr,
                 {Failure::Other, 0,
                  "response body larger than " +
                      std::to_string(self->config_->maxResponseBodyBytes) + " bytes"});
  } else if (error == NGHTTP2_NO_ERROR && ex->status >= 100 && ex->status <= 999) {
    self->Finish(*ex,
                 MakeRef<ClientResponse>(ex->status, std::move(ex->responseHeaders),
                                         std::move(ex->responseBody)),
                 Failure{});
  } else if (error == NGHTTP2_REFUSED_STREAM || !ex->onWire) {
    // REFUSED_STREAM (also how a GOAWAY's unprocessed streams end) means the
    // server did not act on it.
    self->Requeue(ex);
  } else {
    self->Finish(*ex, nullptr,
                 {Failure::Other, 0,
                  std::string("the stream ended without a complete response (") +
                      nghttp2_http2_strerror(error) +
                      "); the request may have been processed and is not sent again"});
  }
  return 0;
}

ssize_t PoolCore::ReadBody(nghttp2_session*, int32_t, uint8_t* buf, size_t length, uint32_t* flags,
                           nghttp2_data_source* source, void*) {
  auto* ex = static_cast<Exchange*>(source->ptr);
  const size_t n = std::min(length, ex->body.size() - ex->bodySent);
  // A body is bytes, not a string: nothing to terminate.
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
  if (n > 0) std::memcpy(buf, ex->body.data() + ex->bodySent, n);
  ex->bodySent += n;
  if (ex->bodySent == ex->body.size()) *flags |= NGHTTP2_DATA_FLAG_EOF;
  return static_cast<ssize_t>(n);
}

void PoolCore::StopNoJoin(std::vector<std::thread>& later) noexcept {
  Lock lock(mutex_);
  if (!stopped_) {
    stopped_ = true;
    const Failure f = Stopped();
    for (auto& ex : queue_) Finish(*ex, nullptr, f);
    for (auto& [id, ex] : streams_) Finish(*ex, nullptr, f);
    queue_.clear();
    callbacksPending_ = 0;
    callbacks_.clear();
    Wake();
    helperCv_.notify_all();
    for (Exchange* w : waiters_) w->ended.notify_all();
    driverGone_.wait(lock, [&] { return !driving_; });
    CloseConnection();
  }
  if (helper_.joinable()) later.push_back(std::move(helper_));
}

void PoolCore::Stop() noexcept {
  std::vector<std::thread> later;
  StopNoJoin(later);
  for (auto& t : later) JoinOrPark(t);
}

void PoolCore::StopAll() noexcept {
  std::vector<std::thread> later;
  {
    std::lock_guard<std::mutex> lock(G().mutex);
    G().closed = true;
    // A pool whose destructor waits for this mutex is still whole here.
    for (PoolCore* c = G().head; c != nullptr; c = c->next_) c->StopNoJoin(later);
    if (G().finished != nullptr) {
      for (auto& t : *G().finished) later.push_back(std::move(t));
      delete G().finished;
      G().finished = nullptr;
    }
  }
  for (auto& t : later) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();  // exit() called in a callback: the process ends under this thread
    } else {
      t.join();
    }
  }
}

// Unloading the library (dlclose) or exit must not leave a helper thread
// running code that is about to disappear, nor sockets open. Pools their
// users keep stay usable objects, but fail every later exchange.
__attribute__((destructor)) static void StopHttpClientsOnUnload() {
  g_unloaded.store(true, std::memory_order_release);
  PoolCore::StopAll();
  if (Service::Logger* logger = g_logger.exchange(nullptr)) logger->Release();
}

}  // namespace Tessel::Http
