// The web command's HTTP server, on cpp-httplib: the page's files, the API
// (GET /api/boxes, GET /api/commands, GET /api/stream, POST /api/run) read
// from and handed to the hub, and what keeps it safe: the security headers
// on every answer, HTTP Basic when a password is set, the requests of other
// sites refused (a POST whose Origin is not this server's, a request that
// names a host other than loopback while no password is set), and limits on
// connections, request size, streams and runs.
//
// Threading: Listen, Start and Stop on the thread that owns the server; the
// server's own threads (one accepting, the others serving a connection
// each, at most kMaxConnections) call the hub. The hub outlives the server.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "tools/fleet/stream.h"

namespace zel::fleet {

// Where to listen: an IPv4 address or a bracketed IPv6 one, and a port (0:
// a free one).
struct ListenAddress {
  static constexpr int kDefaultPort = 8737;

  std::string host = "127.0.0.1";  // without brackets
  int port = kDefaultPort;

  // "ADDR:PORT" with ADDR an IPv4 address or "[IPv6]", PORT 0 to 65535;
  // false otherwise.
  static bool Parse(const std::string& text, ListenAddress& address);
  // Whether the host is this machine's loopback (127.0.0.0/8, ::1).
  bool Loopback() const;
  // The page's address with `port`: "http://127.0.0.1:8737/",
  // "http://[::1]:8737/".
  std::string Url(int port) const;
};

class HttpServer {
 public:
  // Connections served at once; more wait to be accepted.
  static constexpr size_t kMaxConnections = 80;
  // The largest request body taken.
  static constexpr size_t kMaxBody = 16384;

  // `password`, when set, is asked of every request (HTTP Basic, any user
  // name).
  HttpServer(Hub& hub, std::optional<std::string> password);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds to `address`; the port bound (the one chosen for port 0), or -1
  // with why.
  int Listen(const ListenAddress& address, std::string& why);
  // Serves on threads of its own until Stop.
  void Start();
  // Stops accepting and serving; returns once every thread has ended (a
  // connection in the middle of reading a request is given up to its read
  // time-out). The hub must have stopped first, so that streams and runs
  // end.
  void Stop();

 private:
  class Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace zel::fleet
