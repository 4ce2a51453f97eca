#include "tests/tools/fleet/web_client.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "tests/support/wait_until.h"

namespace zel::fleet::test {
namespace {

constexpr time_t kTimeoutSeconds = 30;

std::string LowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

WebAnswer AnswerOf(const httplib::Result& result) {
  WebAnswer answer;
  if (!result) return answer;
  answer.status = result->status;
  for (const auto& [name, value] : result->headers) answer.headers.emplace(LowerCase(name), value);
  answer.body = result->body;
  return answer;
}

// The request's headers, with a Host header that names `host` and `port`
// unless the test gives one.
httplib::Headers HeadersOf(const WebHeaders& headers, const std::string& host, int port) {
  httplib::Headers all;
  for (const auto& [name, value] : headers) all.emplace(name, value);
  const bool ipv6 = host.find(':') != std::string::npos;
  if (all.count("Host") == 0) all.emplace("Host", (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port));
  return all;
}

}  // namespace

std::string WebAnswer::Header(const std::string& name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? std::string() : found->second;
}

void WebClient::SetPassword(const std::string& user, const std::string& password) {
  mUser = user;
  mPassword = password;
}

WebAnswer WebClient::Get(const std::string& path, const WebHeaders& headers) const {
  httplib::Client client(mHost, mPort);
  client.set_read_timeout(kTimeoutSeconds, 0);
  if (!mUser.empty() || !mPassword.empty()) client.set_basic_auth(mUser, mPassword);
  return AnswerOf(client.Get(path, HeadersOf(headers, mHost, mPort)));
}

WebAnswer WebClient::Post(const std::string& path, const std::string& body, const std::string& contentType,
                          const WebHeaders& headers) const {
  httplib::Client client(mHost, mPort);
  client.set_read_timeout(kTimeoutSeconds, 0);
  if (!mUser.empty() || !mPassword.empty()) client.set_basic_auth(mUser, mPassword);
  return AnswerOf(client.Post(path, HeadersOf(headers, mHost, mPort), body, contentType));
}

EventReader::EventReader(int port) : mThread([this, port] { Read(port); }) {}

EventReader::~EventReader() {
  mStop = true;
  mThread.join();
}

void EventReader::Read(int port) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(kTimeoutSeconds, 0);
  client.Get(
      "/api/stream",
      [this](const httplib::Response& response) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mHead.status = response.status;
        for (const auto& [name, value] : response.headers) mHead.headers.emplace(LowerCase(name), value);
        return !mStop.load();
      },
      [this](const char* data, size_t size) {
        Take(data, size);
        // The server ticks every second: the reader stops at the next one.
        return !mStop.load();
      });
  mEnded = true;
}

void EventReader::Take(const char* data, size_t size) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mRaw.append(data, size);
  mPending.append(data, size);
  size_t end = 0;
  while ((end = mPending.find("\n\n")) != std::string::npos) {
    StreamMessage message;
    size_t start = 0;
    while (start < end) {
      const size_t lineEnd = mPending.find('\n', start);
      const std::string line = mPending.substr(start, std::min(lineEnd, end) - start);
      if (line.rfind("event: ", 0) == 0) message.event = line.substr(7);
      if (line.rfind("data: ", 0) == 0) message.data += line.substr(6);
      start = std::min(lineEnd, end) + 1;
    }
    mMessages.push_back(message);
    mPending.erase(0, end + 2);
  }
}

WebAnswer EventReader::Head() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mHead;
}

std::vector<StreamMessage> EventReader::Messages() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mMessages;
}

std::string EventReader::Raw() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mRaw;
}

int EventReader::Find(const std::function<bool(const StreamMessage&)>& match, size_t from) const {
  const std::lock_guard<std::mutex> lock(mMutex);
  for (size_t i = from; i < mMessages.size(); ++i) {
    if (match(mMessages[i])) return static_cast<int>(i);
  }
  return -1;
}

bool EventReader::WaitForIndex(const std::function<bool(const StreamMessage&)>& match, size_t from,
                               std::chrono::milliseconds timeout, int& index) const {
  return ::zel::test::WaitUntil([&] { return (index = Find(match, from)) >= 0; }, timeout);
}

bool EventReader::WaitForEnd(std::chrono::milliseconds timeout) const {
  return ::zel::test::WaitUntil([this] { return mEnded.load(); }, timeout);
}

StalledReader::StalledReader(int port) : mPort(port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  // As small as the kernel allows, so that the server's writes stall soon.
  const int small = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the socket API's address type
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return;
  }
  const std::string request =
      "GET /api/stream HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\nAccept: text/event-stream\r\n\r\n";
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
    ::close(fd);
    return;
  }
  mFd = fd;
}

StalledReader::~StalledReader() {
  if (mFd >= 0) ::close(mFd);
}

bool StalledReader::Closed() const {
  if (mFd < 0) return false;
  // The server's close cannot reach this end while what it wrote waits
  // unread (its FIN queues behind the data), and reading it would make this
  // reader a reader again: so the server's side of the connection is looked
  // up in the kernel's table, where it is no longer ESTABLISHED once closed.
  sockaddr_in own{};
  socklen_t size = sizeof own;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the socket API's address type
  if (::getsockname(mFd, reinterpret_cast<sockaddr*>(&own), &size) != 0) return false;
  // 127.0.0.1 and a port as the table writes them: "0100007F:1F91".
  const auto entry = [](unsigned port) {
    std::ostringstream text;
    text << "0100007F:" << std::uppercase << std::hex << std::setw(4) << std::setfill('0') << port;
    return text.str();
  };
  const std::string local = entry(static_cast<unsigned>(mPort));
  const std::string remote = entry(ntohs(own.sin_port));
  std::ifstream table("/proc/net/tcp");
  std::string line;
  std::getline(table, line);
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot;
    std::string from;
    std::string to;
    std::string state;
    fields >> slot >> from >> to >> state;
    if (from == local && to == remote) return state != "01";
  }
  return true;
}

}  // namespace zel::fleet::test
