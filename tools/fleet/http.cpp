// The one source that includes cpp-httplib's header (with the options its
// library was built with: see cmake/KdxHttplib.cmake), which pulls in
// OpenSSL's, zlib's and brotli's: the rest of the fleet never sees it.
#include "tools/fleet/http.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "tools/fleet/web_files.h"
#include "tools/service_client/failure.h"
#include "util/decimal_text.h"

// How the server is kept within bounds:
// - Connections: cpp-httplib hands each accepted connection to a task queue.
//   Ours runs each on a thread of its own, started when none is idle, at
//   most kMaxConnections; at the limit it holds the accepting thread until a
//   thread is free, so that further connections wait in the kernel's listen
//   queue instead of in memory. The event streams (at most 64, the hub's
//   limit) always leave threads for the other requests.
// - Requests: the URI and each header line at most 8 KB (the library's own
//   limits), a body at most kMaxBody (413 before it is read), 5 s to read a
//   request and to write each piece of an answer.
// - Streams and runs: the hub's limits (503 beyond them), and each stream's
//   bounded queue; a stream whose reader does not take what is written
//   within the write time-out is closed too.
namespace zel::fleet {
namespace {

namespace core = zel::service_client;

constexpr time_t kReadTimeoutSeconds = 5;
constexpr time_t kWriteTimeoutSeconds = 5;
// How long a stream's thread waits for news before it looks again whether
// the server is stopping.
constexpr std::chrono::milliseconds kStreamPoll(1000);
// How long the accepting thread waits for a free thread before it looks
// again whether the server is stopping.
constexpr std::chrono::milliseconds kRoomPoll(100);

const char kJsonType[] = "application/json";
const char kRealm[] = "Basic realm=\"kendrivex-fleet\", charset=\"UTF-8\"";

// The words of an answer's status, for the error object of an answer the
// library made (404, 413, ...).
std::string StatusText(int status) {
  switch (status) {
    case 400:
      return "bad request";
    case 404:
      return "not found";
    case 413:
      return "the request's body is larger than kendrivex-fleet takes";
    case 414:
      return "the request's URI is too long";
    default:
      return "HTTP status " + zel::util::DecimalText(static_cast<uint32_t>(status));
  }
}

// The task queue: a thread per connection, at most `max`, started as
// needed and kept for the next; at the limit, enqueue waits for one to be
// free. The server deletes it once its threads have been joined
// (shutdown).
class ConnectionThreads final : public httplib::TaskQueue {
 public:
  ConnectionThreads(size_t max, const std::atomic<bool>& closing) : mMax(max), mClosing(closing) {}
  ~ConnectionThreads() override { shutdown(); }
  ConnectionThreads(const ConnectionThreads&) = delete;
  ConnectionThreads& operator=(const ConnectionThreads&) = delete;

  void enqueue(std::function<void()> fn) override {
    std::unique_lock<std::mutex> lock(mMutex);
    while (!Room() && !mClosing.load()) mFreed.wait_for(lock, kRoomPoll);
    if (!Room()) {
      // The server is stopping: the connection is closed at once (the
      // library serves nothing once its listening socket is gone).
      lock.unlock();
      fn();
      return;
    }
    mJobs.push_back(std::move(fn));
    if (mIdle >= mJobs.size()) {
      mWork.notify_one();
    } else {
      mThreads.emplace_back([this] { Work(); });
    }
  }

  void shutdown() override {
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      if (mShutdown) return;
      mShutdown = true;
    }
    mWork.notify_all();
    for (std::thread& thread : mThreads) thread.join();
  }

 private:
  // A job waiting will be taken, or a thread may be started for it; with
  // the mutex held.
  bool Room() const { return mIdle > mJobs.size() || mThreads.size() < mMax; }

  void Work() {
    std::unique_lock<std::mutex> lock(mMutex);
    while (true) {
      ++mIdle;
      mFreed.notify_one();
      mWork.wait(lock, [this] { return !mJobs.empty() || mShutdown; });
      --mIdle;
      if (mJobs.empty()) return;
      std::function<void()> job = std::move(mJobs.front());
      mJobs.pop_front();
      lock.unlock();
      job();
      lock.lock();
    }
  }

  const size_t mMax;
  const std::atomic<bool>& mClosing;
  std::mutex mMutex;  // guards what follows
  std::condition_variable mWork;
  std::condition_variable mFreed;
  std::list<std::function<void()>> mJobs;
  std::vector<std::thread> mThreads;
  size_t mIdle = 0;
  bool mShutdown = false;
};

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameText(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

// Compares in a time that does not depend on where they differ.
bool SameSecret(const std::string& given, const std::string& secret) {
  unsigned char differ = given.size() == secret.size() ? 0 : 1;
  for (size_t i = 0; i < given.size(); ++i) {
    differ |= static_cast<unsigned char>(given[i] ^ secret[i % (secret.empty() ? 1 : secret.size())]);
  }
  return differ == 0 && !secret.empty();
}

// Base64 as RFC 4648 has it (the credentials of HTTP Basic); false for
// anything else.
bool DecodeBase64(const std::string& text, std::string& bytes) {
  bytes.clear();
  uint32_t bits = 0;
  int count = 0;
  size_t padding = 0;
  for (const char c : text) {
    int value = -1;
    if (c >= 'A' && c <= 'Z') value = c - 'A';
    if (c >= 'a' && c <= 'z') value = c - 'a' + 26;
    if (c >= '0' && c <= '9') value = c - '0' + 52;
    if (c == '+') value = 62;
    if (c == '/') value = 63;
    if (c == '=') {
      ++padding;
      continue;
    }
    if (value < 0 || padding > 0) return false;
    bits = (bits << 6U) | static_cast<uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes.append(1, static_cast<char>((bits >> static_cast<unsigned>(count)) & 0xFFU));
    }
  }
  return padding <= 2 && (text.size() % 4 == 0);
}

// The host of a Host header ("127.0.0.1:8737", "[::1]:8737", "localhost"),
// without its port and brackets.
std::string HostOf(const std::string& authority) {
  if (!authority.empty() && authority[0] == '[') {
    const size_t close = authority.find(']');
    return close == std::string::npos ? std::string() : authority.substr(1, close - 1);
  }
  return authority.substr(0, authority.find(':'));
}

bool LoopbackHost(const std::string& host) {
  if (SameText(host, "localhost")) return true;
  ListenAddress address;
  address.host = host;
  in_addr ipv4{};
  in6_addr ipv6{};
  return (::inet_pton(AF_INET, host.c_str(), &ipv4) == 1 || ::inet_pton(AF_INET6, host.c_str(), &ipv6) == 1) &&
         address.Loopback();
}

// The media type of a Content-Type header, without its parameters, in
// lower case.
std::string MediaType(const std::string& contentType) {
  std::string type;
  for (const char c : contentType.substr(0, contentType.find(';'))) {
    if (c != ' ' && c != '\t') type.append(1, Lower(c));
  }
  return type;
}

}  // namespace

bool ListenAddress::Parse(const std::string& text, ListenAddress& address) {
  ListenAddress parsed;
  size_t colon = std::string::npos;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') return false;
    parsed.host = text.substr(1, close - 1);
    colon = close + 1;
    in6_addr ipv6{};
    if (::inet_pton(AF_INET6, parsed.host.c_str(), &ipv6) != 1) return false;
  } else {
    colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    parsed.host = text.substr(0, colon);
    in_addr ipv4{};
    if (::inet_pton(AF_INET, parsed.host.c_str(), &ipv4) != 1) return false;
  }
  uint64_t port = 0;
  if (!zel::util::ParseDecimal(text.substr(colon + 1), 65535, port)) return false;
  parsed.port = static_cast<int>(port);
  address = parsed;
  return true;
}

bool ListenAddress::Loopback() const {
  in_addr ipv4{};
  if (::inet_pton(AF_INET, host.c_str(), &ipv4) == 1) return (ntohl(ipv4.s_addr) >> 24U) == 127;
  in6_addr ipv6{};
  if (::inet_pton(AF_INET6, host.c_str(), &ipv6) != 1) return false;
  if (IN6_IS_ADDR_LOOPBACK(&ipv6)) return true;
  // ::ffff:127.x.y.z
  return IN6_IS_ADDR_V4MAPPED(&ipv6) && ipv6.s6_addr[12] == 127;
}

std::string ListenAddress::Url(int boundPort) const {
  const bool ipv6 = host.find(':') != std::string::npos;
  return "http://" + (ipv6 ? "[" + host + "]" : host) + ":" + zel::util::DecimalText(static_cast<uint32_t>(boundPort)) +
         "/";
}

class HttpServer::Impl {
 public:
  Impl(Hub& hub, std::optional<std::string> password) : mHub(hub), mPassword(std::move(password)) {
    mServer.new_task_queue = [this] {
      // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the server takes it and deletes it
      return static_cast<httplib::TaskQueue*>(new ConnectionThreads(kMaxConnections, mClosing));
    };
    mServer.set_socket_options([](socket_t sock) {
      // The port again at once after a restart (its old connections in
      // TIME_WAIT), but not shared with another program, as the library's
      // SO_REUSEPORT would.
      const int yes = 1;
      ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    mServer.set_read_timeout(kReadTimeoutSeconds, 0);
    mServer.set_write_timeout(kWriteTimeoutSeconds, 0);
    mServer.set_payload_max_length(kMaxBody);
    mServer.set_default_headers({
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
         "base-uri 'none'; form-action 'self'; frame-ancestors 'none'"},
        {"X-Content-Type-Options",  "nosniff"                         },
        {"Referrer-Policy",         "no-referrer"                     },
    });
    mServer.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
      return Admit(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                      : httplib::Server::HandlerResponse::Handled;
    });
    mServer.set_error_handler([](const httplib::Request& /*request*/, httplib::Response& response) {
      if (!response.body.empty()) return;
      NoStore(response);
      response.set_content(ErrorJson(StatusText(response.status)), kJsonType);
    });
    for (size_t i = 0; i < kWebFileCount; ++i) {
      const WebFile& file = kWebFiles[i];
      mServer.Get(file.path, [&file](const httplib::Request& /*request*/, httplib::Response& response) {
        response.set_header("Cache-Control", "no-cache");
        response.set_content(file.data, file.size, file.type);
      });
    }
    mServer.Get("/api/boxes", [this](const httplib::Request& /*request*/, httplib::Response& response) {
      NoStore(response);
      response.set_content(mHub.Boxes(), kJsonType);
    });
    mServer.Get("/api/commands", [](const httplib::Request& /*request*/, httplib::Response& response) {
      NoStore(response);
      response.set_content(CommandsJson(), kJsonType);
    });
    mServer.Get("/api/stream",
                [this](const httplib::Request& /*request*/, httplib::Response& response) { Stream(response); });
    mServer.Post("/api/run",
                 [this](const httplib::Request& request, httplib::Response& response) { Run(request, response); });
  }

  int Listen(const ListenAddress& address, std::string& why) {
    errno = 0;
    int port = address.port;
    bool bound = false;
    if (port == 0) {
      port = mServer.bind_to_any_port(address.host, AI_NUMERICHOST);
      bound = port > 0;
    } else {
      bound = mServer.bind_to_port(address.host, port, AI_NUMERICHOST);
    }
    if (bound) return port;
    why = errno != 0 ? core::ErrorText(errno) : "cannot listen there";
    return -1;
  }

  void Start() {
    mThread = std::thread([this] {
      mServer.listen_after_bind();
      mEnded = true;
    });
    // stop() does nothing until the server runs.
    while (!mServer.is_running() && !mEnded.load()) std::this_thread::yield();
  }

  void Stop() {
    mClosing = true;
    mServer.stop();
    if (mThread.joinable()) mThread.join();
  }

 private:
  static void NoStore(httplib::Response& response) { response.set_header("Cache-Control", "no-store"); }

  static void Refuse(httplib::Response& response, int status, const std::string& why) {
    response.status = status;
    NoStore(response);
    response.set_content(ErrorJson(why), kJsonType);
  }

  // Whether the request may be served: the password when one is set; else
  // a loopback host named, so that a site whose name is made to point at
  // this machine (DNS rebinding) cannot read the fleet through the
  // operator's browser.
  bool Admit(const httplib::Request& request, httplib::Response& response) const {
    if (!mPassword) {
      if (LoopbackHost(HostOf(request.get_header_value("Host")))) return true;
      Refuse(response, 403, "without a password only requests to a loopback address are served");
      return false;
    }
    const std::string credentials = request.get_header_value("Authorization");
    const std::string scheme = "Basic ";
    std::string decoded;
    if (credentials.size() > scheme.size() && SameText(credentials.substr(0, scheme.size()), scheme) &&
        DecodeBase64(credentials.substr(scheme.size()), decoded)) {
      const size_t colon = decoded.find(':');
      if (colon != std::string::npos && SameSecret(decoded.substr(colon + 1), *mPassword)) return true;
    }
    Refuse(response, 401, "the password is needed");
    response.set_header("WWW-Authenticate", kRealm);
    return false;
  }

  // Whether a POST comes from this server's own page: a browser names the
  // page's origin in Origin, which must then be this server as the request
  // reached it (Host, or the X-Forwarded-Host of a reverse proxy, which a
  // page of another site cannot set without the server's leave). A request
  // without Origin does not come from a page.
  static bool SameOrigin(const httplib::Request& request) {
    if (!request.has_header("Origin")) return true;
    const std::string origin = request.get_header_value("Origin");
    for (const char* header : {"Host", "X-Forwarded-Host"}) {
      if (!request.has_header(header)) continue;
      const std::string host = request.get_header_value(header);
      if (host.empty()) continue;
      if (SameText(origin, "http://" + host) || SameText(origin, "https://" + host)) return true;
    }
    return false;
  }

  void Stream(httplib::Response& response) {
    const std::shared_ptr<Hub::Stream> stream = mHub.Open();
    if (!stream) {
      Refuse(response, 503, "as many event streams as kendrivex-fleet serves at once are open");
      return;
    }
    NoStore(response);
    Hub& hub = mHub;
    response.set_chunked_content_provider(
        "text/event-stream",
        [&hub, stream](size_t /*offset*/, httplib::DataSink& sink) {
          std::string out;
          switch (hub.Wait(*stream, out, kStreamPoll)) {
            case Hub::Next::Data:
              return sink.write(out.data(), out.size());
            case Hub::Next::Idle:
              return true;
            case Hub::Next::End:
              break;
          }
          return false;
        },
        [&hub, stream](bool /*success*/) { hub.Close(*stream); });
  }

  void Run(const httplib::Request& request, httplib::Response& response) {
    if (!SameOrigin(request)) return Refuse(response, 403, "a run may be asked for only by this server's own page");
    if (MediaType(request.get_header_value("Content-Type")) != kJsonType) {
      return Refuse(response, 415, "the body of a run is application/json");
    }
    RunRequest run;
    std::string why;
    if (!ParseRunRequest(request.body, run, why)) return Refuse(response, 400, why);
    const auto ticket = std::make_shared<RunTicket>(std::move(run));
    switch (mHub.SubmitRun(ticket)) {
      case Hub::Admitted::Busy:
        return Refuse(response, 503, "as many runs as kendrivex-fleet takes at once are under way");
      case Hub::Admitted::Stopped:
        return Refuse(response, 503, "kendrivex-fleet is stopping");
      case Hub::Admitted::Yes:
        break;
    }
    int status = 0;
    std::string body;
    ticket->Wait(status, body);
    response.status = status;
    NoStore(response);
    response.set_content(body, kJsonType);
  }

  Hub& mHub;
  const std::optional<std::string> mPassword;
  httplib::Server mServer;
  std::atomic<bool> mClosing{false};
  std::atomic<bool> mEnded{false};
  std::thread mThread;
};

HttpServer::HttpServer(Hub& hub, std::optional<std::string> password)
    : mImpl(std::make_unique<Impl>(hub, std::move(password))) {}

HttpServer::~HttpServer() { mImpl->Stop(); }

int HttpServer::Listen(const ListenAddress& address, std::string& why) { return mImpl->Listen(address, why); }

void HttpServer::Start() { mImpl->Start(); }

void HttpServer::Stop() { mImpl->Stop(); }

}  // namespace zel::fleet
