// The nghttp2 session on a pool's connection: submitting requests, writing
// what nghttp2 has ready, reading into it, and nghttp2's callbacks, which it
// makes from those calls, under the pool's mutex.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/http/pool_core.h"

namespace Tessel::Http {
namespace {

constexpr size_t kReadBuffer = 256 << 10;
constexpr int32_t kStreamWindow = 16 << 20;  // large bodies flow without waiting for updates

std::string Authority(const ConnectionSpec& spec) {
  std::string a =
      spec.GetHost().find(':') != std::string::npos ? "[" + spec.GetHost() + "]" : spec.GetHost();
  return a + ":" + std::to_string(spec.GetPort());
}

// A header field for nghttp2, which copies it before the call returns.
nghttp2_nv HeaderField(const std::string& name, const std::string& value) {
  return {reinterpret_cast<uint8_t*>(const_cast<char*>(name.data())),
          reinterpret_cast<uint8_t*>(const_cast<char*>(value.data())), name.size(), value.size(),
          NGHTTP2_NV_FLAG_NONE};
}

}  // namespace

PoolConnection::~PoolConnection() {
  if (session != nullptr) nghttp2_session_del(session);
  if (fd >= 0) close(fd);
}

// A connection nobody read from for a while may have been closed by the
// server (idle time-out, restart): learn that before putting a request on it.
void PoolCore::CheckIdleConnection() {
  ReadAvailable(*current_);
  TidyConnections();
}

void PoolCore::Connected() {
  PoolConnection& c = *current_;
  // The session copies the callbacks; nothing is kept that an unload would leak.
  nghttp2_session_callbacks* callbacks = nullptr;
  int rc = nghttp2_session_callbacks_new(&callbacks);
  if (rc == 0) {
    nghttp2_session_callbacks_set_on_header_callback(callbacks, &PoolCore::OnHeader);
    nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, &PoolCore::OnData);
    nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, &PoolCore::OnFrameRecv);
    nghttp2_session_callbacks_set_on_frame_send_callback(callbacks, &PoolCore::OnFrameSend);
    nghttp2_session_callbacks_set_on_frame_not_send_callback(callbacks, &PoolCore::OnFrameNotSend);
    nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, &PoolCore::OnStreamClose);
    rc = nghttp2_session_client_new(&c.session, callbacks, &c);
    nghttp2_session_callbacks_del(callbacks);
  }
  addressIndex_ = 0;
  if (rc != 0) {
    c.session = nullptr;
    return ConnectFailed(ENOMEM);
  }
  const nghttp2_settings_entry settings[] = {{NGHTTP2_SETTINGS_ENABLE_PUSH, 0},
                                             {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, kStreamWindow}};
  nghttp2_submit_settings(c.session, NGHTTP2_FLAG_NONE, settings, 2);
  nghttp2_session_set_local_window_size(c.session, NGHTTP2_FLAG_NONE, 0, 1 << 30);
  conn_ = ConnectionState::Up;
  c.lastReadUs = System::GetMonotonicTime();
  if (in_.empty()) in_.resize(kReadBuffer);
  SubmitQueued();
  Flush(c);
}

// Whether a queued request could go on the current connection now.
bool PoolCore::CanSubmit() const {
  return conn_ == ConnectionState::Up && !current_->draining && !queue_.empty() &&
         current_->streams.size() < config_->maxConcurrentStreams;
}

void PoolCore::SubmitQueued() {
  if (!CanSubmit()) return;
  PoolConnection& c = *current_;
  const std::string authority = Authority(*spec_);
  std::vector<nghttp2_nv> nva;
  static const std::string kMethod = ":method", kScheme = ":scheme", kHttp = "http",
                           kAuthority = ":authority", kPath = ":path", kLength = "content-length";
  while (CanSubmit()) {
    if (!nghttp2_session_check_request_allowed(c.session)) {
      // Stream ids used up, or the session ends: the rest go on the next connection.
      c.draining = true;
      break;
    }
    Ref<Exchange> ex = queue_.front();
    const std::string method = MethodName(ex->method);
    const bool hasBody = ex->HasBody();
    const std::string length = std::to_string(ex->body.size());
    nva.clear();
    nva.reserve(5 + ex->headers.size());
    nva.push_back(HeaderField(kMethod, method));
    nva.push_back(HeaderField(kScheme, kHttp));
    nva.push_back(HeaderField(kAuthority, authority));
    nva.push_back(HeaderField(kPath, ex->target));
    bool hasLength = false;
    for (const auto& h : ex->headers) {
      hasLength |= h.name == kLength;
      nva.push_back(HeaderField(h.name, h.value));
    }
    if (hasBody && !hasLength) nva.push_back(HeaderField(kLength, length));
    nghttp2_data_provider provider{};
    provider.source.ptr = ex.Get();
    provider.read_callback = &PoolCore::ReadBody;
    ex->bodySent = 0;
    const int32_t id = nghttp2_submit_request(c.session, nullptr, nva.data(), nva.size(),
                                              hasBody ? &provider : nullptr, ex.Get());
    queue_.pop_front();
    if (id < 0) {
      Finish(*ex, nullptr, {Failure::Other, 0, nghttp2_strerror(id)});
      continue;
    }
    ex->state = Exchange::State::OnStream;
    ex->streamId = id;
    c.streams.emplace(id, std::move(ex));
  }
}

// Gathers every frame nghttp2 has ready into one buffer and writes it with
// one send: many waiting callers' requests leave together.
bool PoolCore::Flush(PoolConnection& c) {
  if (c.session == nullptr || c.fd < 0 || c.brokenErrno != 0) return c.brokenErrno == 0;
  for (;;) {
    if (c.outOffset == c.out.size()) {
      c.out.clear();
      c.outOffset = 0;
      while (c.out.size() < (1u << 20)) {
        const uint8_t* data = nullptr;
        const ssize_t n = nghttp2_session_mem_send(c.session, &data);
        if (n < 0) {
          c.brokenErrno = EPROTO;
          return false;
        }
        if (n == 0) break;
        c.out.append(reinterpret_cast<const char*>(data), static_cast<size_t>(n));
      }
      if (c.out.empty()) return true;
    }
    const ssize_t w = send(c.fd, c.out.data() + c.outOffset, c.out.size() - c.outOffset,
                           MSG_NOSIGNAL | MSG_DONTWAIT);
    if (w < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) c.brokenErrno = errno;
      return false;
    }
    c.outOffset += static_cast<size_t>(w);
  }
}

// The leader writes what every connection has ready; one whose write failed
// is given up.
void PoolCore::FlushAll() {
  for (PoolConnection* c : Connections()) {
    Flush(*c);
    if (c->brokenErrno != 0 && c->session != nullptr) {
      ConnectionLost(*c, std::strerror(c->brokenErrno));
    }
  }
}

void PoolCore::ReadAvailable(PoolConnection& c) {
  while (c.fd >= 0 && c.session != nullptr) {
    const ssize_t n = recv(c.fd, in_.data(), in_.size(), MSG_DONTWAIT);
    if (n > 0) {
      c.lastReadUs = System::GetMonotonicTime();
      const ssize_t rv = nghttp2_session_mem_recv(c.session, in_.data(), static_cast<size_t>(n));
      if (rv < 0) return ConnectionLost(c, nghttp2_strerror(static_cast<int>(rv)));
      if (static_cast<size_t>(n) < in_.size()) break;
      continue;
    }
    if (n == 0) return ConnectionLost(c, "the server closed the connection");
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) break;
    return ConnectionLost(c, std::strerror(errno));
  }
  if (c.session == nullptr) return;
  if (&c == current_.get()) SubmitQueued();
  Flush(c);
  if (c.brokenErrno != 0 && !driving_) return ConnectionLost(c, std::strerror(c.brokenErrno));
  // A connection error (a frame that breaks the protocol, bytes that are not
  // HTTP/2) reads as success: nghttp2 queues a GOAWAY and ends the session
  // once it is written. Nothing more comes on this connection.
  if (!nghttp2_session_want_read(c.session) && !nghttp2_session_want_write(c.session)) {
    ConnectionLost(c, c.sessionError.empty() ? "the HTTP/2 session ended" : c.sessionError);
  }
}

// Ends every stream of the connection and closes it; the object itself goes
// in TidyConnections, so callers up the stack may still look at it.
void PoolCore::ConnectionLost(PoolConnection& c, const std::string& why) {
  std::unordered_map<int32_t, Ref<Exchange>> streams;
  streams.swap(c.streams);
  for (auto& [id, ex] : streams) {
    if (ex->state != Exchange::State::OnStream) continue;
    // Not on the wire yet, or declared unprocessed by the server's GOAWAY.
    if (!ex->onWire || (c.goawayLastStream >= 0 && id > c.goawayLastStream)) {
      Requeue(ex);
    } else {
      Finish(*ex, nullptr,
             {Failure::Other, 0,
              "the connection failed after the request was sent, which may have been processed; "
              "it is not sent again (" +
                  why + ")"});
    }
  }
  CloseConnection(c);
}

// Closes the socket and drops the session; the streams are the caller's.
void PoolCore::CloseConnection(PoolConnection& c) {
  c.streams.clear();
  if (c.session != nullptr) nghttp2_session_del(c.session);
  c.session = nullptr;
  if (c.fd >= 0) close(c.fd);
  c.fd = -1;
  c.out.clear();
  c.outOffset = 0;
  if (&c == current_.get()) conn_ = ConnectionState::None;
}

// Sets a drained current connection aside, so that the next request opens
// another at once, and lets go of connections that are closed or drained.
// Nothing of a connection may be in use up the stack when this runs.
void PoolCore::TidyConnections() {
  if (conn_ == ConnectionState::Up && current_->draining) {
    draining_.push_back(std::move(current_));
    conn_ = ConnectionState::None;
  }
  if (conn_ == ConnectionState::None) current_.reset();
  for (size_t i = 0; i < draining_.size();) {
    PoolConnection& c = *draining_[i];
    if (c.session != nullptr && !c.streams.empty()) {
      ++i;
      continue;
    }
    CloseConnection(c);
    draining_.erase(draining_.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

void PoolCore::CloseAll() {
  for (PoolConnection* c : Connections()) CloseConnection(*c);
  conn_ = ConnectionState::None;
  current_.reset();
  draining_.clear();
}

PoolConnection* PoolCore::ConnectionOf(const Exchange& ex) const {
  auto holds = [&ex](const PoolConnection& c) {
    auto it = c.streams.find(ex.streamId);
    return it != c.streams.end() && it->second.Get() == &ex;
  };
  if (current_ && holds(*current_)) return current_.get();
  for (const auto& c : draining_) {
    if (holds(*c)) return c.get();
  }
  return nullptr;
}

PoolCore::ConnectionList PoolCore::Connections() const {
  ConnectionList list;
  if (current_) list.items[list.size++] = current_.get();
  // StartConnect keeps this many at most: a current one is only made below it.
  for (const auto& c : draining_) list.items[list.size++] = c.get();
  return list;
}

size_t PoolCore::StreamCount() const {
  size_t n = current_ ? current_->streams.size() : 0;
  for (const auto& c : draining_) n += c->streams.size();
  return n;
}

int PoolCore::OnHeader(nghttp2_session*, const nghttp2_frame* frame, const uint8_t* name,
                       size_t namelen, const uint8_t* value, size_t valuelen, uint8_t, void* p) {
  auto* conn = static_cast<PoolConnection*>(p);
  PoolCore* self = conn->pool;
  self->mutex_.AssertHeld();
  if (frame->hd.type != NGHTTP2_HEADERS) return 0;
  auto it = conn->streams.find(frame->hd.stream_id);
  if (it == conn->streams.end()) return 0;
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
  if (ex.responseHeaders.empty()) ex.responseHeaders.reserve(8);  // an answer has a few
  ex.responseHeaders.push_back(Header{std::string(n), std::string(v)});
  return 0;
}

int PoolCore::OnData(nghttp2_session* session, uint8_t, int32_t stream, const uint8_t* data,
                     size_t len, void* p) {
  auto* conn = static_cast<PoolConnection*>(p);
  PoolCore* self = conn->pool;
  self->mutex_.AssertHeld();
  auto it = conn->streams.find(stream);
  if (it == conn->streams.end()) return 0;
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
  auto* conn = static_cast<PoolConnection*>(p);
  conn->pool->mutex_.AssertHeld();
  if (frame->hd.type == NGHTTP2_GOAWAY) {
    // Streams above the last id come back as refused and are sent again;
    // the ones it took in finish here.
    conn->goawayLastStream = frame->goaway.last_stream_id;
    conn->draining = true;
  }
  return 0;
}

int PoolCore::OnFrameSend(nghttp2_session*, const nghttp2_frame* frame, void* p) {
  auto* conn = static_cast<PoolConnection*>(p);
  conn->pool->mutex_.AssertHeld();
  if (frame->hd.type == NGHTTP2_GOAWAY && frame->goaway.error_code != NGHTTP2_NO_ERROR) {
    // nghttp2 ends the connection for what the server sent; say why.
    const auto& goaway = frame->goaway;
    conn->sessionError =
        std::string("HTTP/2 connection error ") + nghttp2_http2_strerror(goaway.error_code);
    if (goaway.opaque_data_len > 0) {
      conn->sessionError += ": " + std::string(reinterpret_cast<const char*>(goaway.opaque_data),
                                               goaway.opaque_data_len);
    }
  }
  if (frame->hd.type != NGHTTP2_HEADERS) return 0;
  auto it = conn->streams.find(frame->hd.stream_id);
  if (it != conn->streams.end()) {
    it->second->onWire = true;
    it->second->everSent = true;
  }
  return 0;
}

// A request nghttp2 will not frame (a header block above what HTTP/2 lets it
// send) can never be sent: it fails at once instead of waiting out its limit.
// Other reasons (the server's GOAWAY came first) close the stream as refused,
// and it is sent again.
int PoolCore::OnFrameNotSend(nghttp2_session*, const nghttp2_frame* frame, int error, void* p) {
  auto* conn = static_cast<PoolConnection*>(p);
  conn->pool->mutex_.AssertHeld();
  if (frame->hd.type != NGHTTP2_HEADERS || error != NGHTTP2_ERR_FRAME_SIZE_ERROR) return 0;
  auto it = conn->streams.find(frame->hd.stream_id);
  if (it != conn->streams.end()) it->second->unsendable = true;
  return 0;
}

int PoolCore::OnStreamClose(nghttp2_session*, int32_t stream, uint32_t error, void* p) {
  auto* conn = static_cast<PoolConnection*>(p);
  PoolCore* self = conn->pool;
  self->mutex_.AssertHeld();
  auto it = conn->streams.find(stream);
  if (it == conn->streams.end()) return 0;
  Ref<Exchange> ex = std::move(it->second);
  conn->streams.erase(it);
  if (ex->state != Exchange::State::OnStream) return 0;
  if (ex->unsendable) {
    self->Finish(*ex, nullptr,
                 {Failure::InvalidArgument, 0,
                  "the request's header block is larger than HTTP/2 lets it be sent; not sent"});
  } else if (ex->tooLarge) {
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

}  // namespace Tessel::Http
