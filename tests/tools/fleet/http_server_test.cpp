// The web command's HTTP server in process, on a hub of the test's own: the
// answers that the library makes itself, the reading of HTTP Basic
// credentials, the origin of a run behind a reverse proxy, the host names
// served without a password, and a hub that has stopped.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include "gtest/gtest.h"
#include "tests/tools/fleet/web_client.h"
#include "tools/fleet/http.h"
#include "tools/fleet/stream.h"
#include "tools/service_client/failure.h"

namespace zel::fleet::test {
namespace {

const char kPingAll[] = R"({"target":"all","command":"ping","timeout":100})";

class HttpServerTest : public ::testing::Test {
 protected:
  // Serves on a free port of 127.0.0.1, asking for `password` when it is
  // set.
  void Serve(std::optional<std::string> password = std::nullopt) {
    ASSERT_TRUE(hub.Ok());
    server = std::make_unique<HttpServer>(hub, std::move(password));
    ListenAddress address;
    ASSERT_TRUE(ListenAddress::Parse("127.0.0.1:0", address));
    std::string why;
    port = server->Listen(address, why);
    ASSERT_GT(port, 0) << why;
    server->Start();
  }

  WebClient Client() const { return WebClient("127.0.0.1", port); }

  // Sends `request` as it is on a connection of its own and returns the
  // answer: its head and as much body as its Content-Length says.
  std::string Raw(const std::string& request) const {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return "socket: " + zel::service_client::ErrorText(errno);
    const timeval patience{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0 &&
        ::write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
      char buffer[4096];
      ssize_t got = 0;
      while (!Whole(answer) && (got = ::read(fd, buffer, sizeof buffer)) > 0) {
        answer.append(buffer, static_cast<size_t>(got));
      }
    }
    ::close(fd);
    return answer;
  }

  // Whether `answer` holds its head and all of its body.
  static bool Whole(const std::string& answer) {
    const size_t end = answer.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    const std::string name = "\r\nContent-Length: ";
    const size_t length = answer.find(name);
    if (length == std::string::npos || length > end) return true;
    return answer.size() - (end + 4) >= std::stoul(answer.substr(length + name.size()));
  }

  // The status line and the body of a raw answer.
  static std::string StatusLine(const std::string& answer) { return answer.substr(0, answer.find("\r\n")); }
  static std::string Body(const std::string& answer) {
    const size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : answer.substr(end + 4);
  }

  Hub hub{Hub::Limits{}};
  std::unique_ptr<HttpServer> server;  // stops before the hub goes
  int port = -1;
};

TEST_F(HttpServerTest, AMalformedRequestIsAnsweredWithItsStatusInJson) {
  Serve();
  const std::string answer = Raw("NONSENSE\r\n\r\n");
  EXPECT_EQ(StatusLine(answer), "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(Body(answer), R"({"error":"bad request"})");
}

TEST_F(HttpServerTest, AnOverlongUriIsAnsweredWithItsStatusInJson) {
  Serve();
  const std::string answer = Raw("GET /" + std::string(9000, 'x') + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  EXPECT_EQ(StatusLine(answer), "HTTP/1.1 414 URI Too Long");
  EXPECT_EQ(Body(answer), R"({"error":"the request's URI is too long"})");
}

TEST_F(HttpServerTest, CredentialsAreTheBasicSchemeInAnyCaseAndTheUserAndPasswordInBase64) {
  // The password's base64 holds '+' and '/'.
  Serve(">>>?");
  for (const char* scheme : {"Basic", "basic", "BASIC"}) {
    const WebAnswer answer = Client().Get("/api/boxes", {
                                                            {"Authorization", std::string(scheme) + " dTo+Pj4/"}
    });
    EXPECT_EQ(answer.status, 200) << scheme;
    EXPECT_EQ(answer.body, "[]") << scheme;
  }
}

TEST_F(HttpServerTest, CredentialsThatAreNotTheUserAndThePasswordInBase64AreRefused) {
  Serve(">>>?");
  for (const char* credentials : {
           "Bearer dTo+Pj4/",     // another scheme
           "Basic ",              // nothing
           "Basic dTo+Pj4",       // not whole groups of four
           "Basic dTo+Pj4{",      // a character past 'z'
           "Basic dTo+Pj4-",      // base64url's character
           "Basic dTo+P=4/",      // a character after the padding
           "Basic dTo+Pj4/====",  // padding of more than two
           "Basic dT4+Pj8=",      // "u>>>?": no colon before the password
           "Basic dTp3cm9uZw==",  // "u:wrong"
       }) {
    const WebAnswer answer = Client().Get("/api/boxes", {
                                                            {"Authorization", credentials}
    });
    EXPECT_EQ(answer.status, 401) << credentials;
    EXPECT_EQ(answer.body, R"({"error":"the password is needed"})") << credentials;
  }
}

TEST_F(HttpServerTest, ARunFromThePageBehindAReverseProxyIsTaken) {
  Serve(">>>?");
  // The proxy names the page's host; the page is there over https. The body
  // is then read: its error shows that the origin was accepted.
  const WebAnswer answer = Client().Post("/api/run", "{", "application/json",
                                         {
                                             {"Authorization",    "Basic dTo+Pj4/"       },
                                             {"Host",             ""                     },
                                             {"X-Forwarded-Host", "fleet.example"        },
                                             {"Origin",           "https://fleet.example"}
  });
  EXPECT_EQ(answer.status, 400);
  EXPECT_EQ(answer.body, R"({"error":"the body is not a JSON object of a run"})");
}

TEST_F(HttpServerTest, ARunFromAPageOfAnotherHostBehindAReverseProxyIsRefused) {
  Serve(">>>?");
  const WebAnswer answer = Client().Post("/api/run", kPingAll, "application/json",
                                         {
                                             {"Authorization",    "Basic dTo+Pj4/"      },
                                             {"Host",             ""                    },
                                             {"X-Forwarded-Host", "fleet.example"       },
                                             {"Origin",           "https://evil.example"}
  });
  EXPECT_EQ(answer.status, 403);
  EXPECT_EQ(answer.body, R"({"error":"a run may be asked for only by this server's own page"})");
}

TEST_F(HttpServerTest, WithoutAPasswordAnUnclosedOrMappedOtherIpv6HostIsRefused) {
  Serve();
  for (const char* host : {"[::1", "[::ffff:10.0.0.1]:80", "[fe80::1]:80"}) {
    const WebAnswer answer = Client().Get("/api/boxes", {
                                                            {"Host", host}
    });
    EXPECT_EQ(answer.status, 403) << host;
  }
  EXPECT_EQ(Client()
                .Get("/api/boxes",
                     {
                         {"Host", "[::ffff:127.0.0.1]:80"}
  })
                .status,
            200);
}

TEST_F(HttpServerTest, OnceTheHubHasStoppedRunsAndStreamsAreRefused) {
  Serve();
  hub.Stop();
  const WebAnswer run = Client().Post("/api/run", kPingAll, "application/json");
  EXPECT_EQ(run.status, 503);
  EXPECT_EQ(run.body, R"({"error":"kendrivex-fleet is stopping"})");
  const WebAnswer stream = Client().Get("/api/stream");
  EXPECT_EQ(stream.status, 503);
}

TEST_F(HttpServerTest, AnAddressThisMachineDoesNotHaveCannotBeListenedOn) {
  HttpServer elsewhere(hub, std::nullopt);
  ListenAddress address;
  ASSERT_TRUE(ListenAddress::Parse("192.0.2.1:0", address));
  std::string why;
  EXPECT_EQ(elsewhere.Listen(address, why), -1);
  EXPECT_EQ(why, zel::service_client::ErrorText(EADDRNOTAVAIL));
}

}  // namespace
}  // namespace zel::fleet::test
