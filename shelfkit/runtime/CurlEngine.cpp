#include "shelfkit/runtime/CurlEngine.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "module/platform/Localization.h"
#include "module/platform/Log.h"
#include "module/platform/Text.h"

namespace shelfkit {

struct CurlEngine::Transfer {
  CurlEngine* engine = nullptr;
  TransferId id = 0;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  Callbacks callbacks;
  // The response head being read; reset at every status line (redirects, 1xx).
  int status = 0;
  std::vector<std::pair<std::string, std::string>> fields;
  bool headDelivered = false;
  bool endedAfterHead = false;
  bool drainBody = false;  // the head was all that was wanted; a short body is read and dropped
};

namespace {

constexpr long kMaxRedirects = 16;
constexpr long kTimeoutSeconds = 60;       // connect, and longest stretch without a byte
constexpr long kReceiveBufferSize = 256 * 1024;
// A body this short is read past rather than cut off, so that its connection
// stays open for the next request (a probe's one byte, say).
constexpr int64_t kDrainLimit = 64 * 1024;

std::string trim(const char* begin, const char* end) {
  while (begin < end && (*begin == ' ' || *begin == '\t')) ++begin;
  while (end > begin && (end[-1] == ' ' || end[-1] == '\t' || end[-1] == '\r' || end[-1] == '\n')) --end;
  return std::string(begin, end);
}

bool willFollow(int status, const std::vector<std::pair<std::string, std::string>>& fields) {
  if (status < 300 || status > 399 || status == 304) return false;
  for (const auto& [name, value] : fields)
    if (strcasecmp(name.c_str(), "Location") == 0 && !value.empty()) return true;
  return false;
}

}  // namespace

CurlEngine& CurlEngine::shared() {
  static CurlEngine* engine = [] {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return new CurlEngine;  // never destroyed: its thread serves the process to the end
  }();
  return *engine;
}

CurlEngine::CurlEngine() : multi_(curl_multi_init()) {
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 256L);
  thread_ = std::thread([this] { run(); });
  thread_.detach();
}

CurlEngine::TransferId CurlEngine::start(const platform::URLRequest& request, Callbacks callbacks, bool headOnly) {
  auto transfer = std::make_unique<Transfer>();
  transfer->engine = this;
  transfer->id = nextId_++;
  transfer->callbacks = std::move(callbacks);
  CURL* easy = curl_easy_init();
  transfer->easy = easy;
  curl_easy_setopt(easy, CURLOPT_URL, request.url.absoluteString().c_str());
  for (const auto& [field, value] : request.headers)
    transfer->headers = curl_slist_append(transfer->headers, (field + ": " + value).c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
  // Only the web: a server must not redirect us into local files or other protocols.
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kTimeoutSeconds);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, kTimeoutSeconds);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_USERAGENT, "shelf/1.0");
  if (headOnly) curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlEngine::headerCallback);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlEngine::writeCallback);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());

  TransferId id = transfer->id;
  ++active_;
  {
    std::lock_guard lock(mutex_);
    // The engine thread takes ownership when the command runs.
    commands_.push_back([this, raw = transfer.release()] { addTransfer(std::unique_ptr<Transfer>(raw)); });
  }
  curl_multi_wakeup(multi_);
  return id;
}

void CurlEngine::addTransfer(std::unique_ptr<Transfer> transfer) {
  Transfer* t = transfer.get();
  transfers_.emplace(t->id, std::move(transfer));
  CURLMcode rc = curl_multi_add_handle(multi_, t->easy);
  if (rc != CURLM_OK) finish(t, CURLE_FAILED_INIT, false);
}

void CurlEngine::cancel(TransferId id) {
  {
    std::lock_guard lock(mutex_);
    commands_.push_back([this, id] {
      auto it = transfers_.find(id);
      if (it != transfers_.end()) finish(it->second.get(), CURLE_ABORTED_BY_CALLBACK, true);
    });
  }
  curl_multi_wakeup(multi_);
}

size_t CurlEngine::activeTransfers() const { return active_.load(); }

void CurlEngine::finish(Transfer* transfer, CURLcode result, bool cancelled) {
  curl_multi_remove_handle(multi_, transfer->easy);
  curl_easy_cleanup(transfer->easy);
  curl_slist_free_all(transfer->headers);
  auto onComplete = std::move(transfer->callbacks.onComplete);
  if (transfer->endedAfterHead && !cancelled) result = CURLE_OK;
  transfers_.erase(transfer->id);  // destroys `transfer`
  --active_;
  if (onComplete) onComplete(result, cancelled);
}

void CurlEngine::run() {
  for (;;) {
    std::vector<std::function<void()>> commands;
    {
      std::lock_guard lock(mutex_);
      commands.swap(commands_);
    }
    for (auto& command : commands) command();

    int running = 0;
    curl_multi_perform(multi_, &running);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      Transfer* transfer = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
      CURLcode result = message->data.result;
      if (transfer) finish(transfer, result, false);
    }
    curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
  }
}

size_t CurlEngine::headerCallback(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const size_t length = size * count;
  const char* end = data + length;
  if (length >= 5 && std::string_view(data, 5) == "HTTP/") {
    // A new response head begins (first, after a redirect, or after 1xx).
    t->fields.clear();
    const char* space = static_cast<const char*>(memchr(data, ' ', length));
    t->status = space ? std::atoi(space + 1) : 0;
    return length;
  }
  if (trim(data, end).empty()) {
    if (t->headDelivered || t->status / 100 == 1 || willFollow(t->status, t->fields)) return length;
    t->headDelivered = true;
    char* effective = nullptr;
    curl_easy_getinfo(t->easy, CURLINFO_EFFECTIVE_URL, &effective);
    auto url = platform::URL::URLWithString(effective ? effective : "");
    if (!url || !t->callbacks.onResponse) return length;
    platform::HTTPURLResponse response(*url, t->status, t->fields);
    if (!t->callbacks.onResponse(response)) {
      t->endedAfterHead = true;
      const int64_t bodyLength = response.expectedContentLength();
      if (bodyLength >= 0 && bodyLength <= kDrainLimit && !response.valueForHTTPHeaderField("Transfer-Encoding")) {
        t->drainBody = true;
        return length;
      }
      return 0;  // libcurl stops the transfer: nothing of the body is read
    }
    return length;
  }
  const char* colon = static_cast<const char*>(memchr(data, ':', length));
  if (colon) {
    t->fields.emplace_back(platform::UTF8FromHeaderBytes(trim(data, colon)),
                           platform::UTF8FromHeaderBytes(trim(colon + 1, end)));
  }
  return length;
}

size_t CurlEngine::writeCallback(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const size_t length = size * count;
  if (t->drainBody) return length;
  if (t->callbacks.onBody && !t->callbacks.onBody(data, length)) return 0;
  return length;
}

std::string localizedDescriptionForCurlError(CURLcode code) {
  const char* text;
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      text = "A server with the specified hostname could not be found.";
      break;
    case CURLE_COULDNT_CONNECT:
      text = "Could not connect to the server.";
      break;
    case CURLE_OPERATION_TIMEDOUT:
      text = "The request timed out.";
      break;
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      text = "The network connection was lost.";
      break;
    case CURLE_TOO_MANY_REDIRECTS:
      text = "too many HTTP redirects";
      break;
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      text = "unsupported URL";
      break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
      text = "An SSL error has occurred and a secure connection to the server cannot be made.";
      break;
    case CURLE_WRITE_ERROR:
      text = "The file could not be written.";
      break;
    case CURLE_ABORTED_BY_CALLBACK:
      text = "cancelled";
      break;
    default:
      return platform::localizedString("shelf", "The operation couldn’t be completed.") + " (" +
             curl_easy_strerror(code) + ")";
  }
  return platform::localizedString("shelf", text);
}

}  // namespace shelfkit
