// A browser's side of kendrivex-fleet web for the tests, on cpp-httplib's
// client (the one test source that includes its header): requests with
// their answers, and a reader of the event stream that collects its
// messages on a thread of its own. Also a reader that connects to the stream
// and then reads nothing, as a stalled browser would.
//
// Threading: a WebClient on one thread; an EventReader's messages may be
// read from any thread while they grow (it guards them), and it stops and
// joins its thread when destroyed.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zel::fleet::test {

// An answer as it came: status, headers (by lower-case name, the first of
// each) and body. Status -1 when no answer came.
struct WebAnswer {
  int status = -1;
  std::map<std::string, std::string> headers;
  std::string body;

  // The header `name` (lower case), empty when it is not there.
  std::string Header(const std::string& name) const;
};

using WebHeaders = std::vector<std::pair<std::string, std::string>>;

class WebClient {
 public:
  // The server at `host` (an address: "127.0.0.1", "::1"; the Host header
  // names it, unless a request gives one) and `port`.
  WebClient(std::string host, int port) : mHost(std::move(host)), mPort(port) {}

  // Each request has a connection of its own. The user's password for HTTP
  // Basic when `password` is set (any user name).
  void SetPassword(const std::string& user, const std::string& password);
  WebAnswer Get(const std::string& path, const WebHeaders& headers = {}) const;
  WebAnswer Post(const std::string& path, const std::string& body, const std::string& contentType,
                 const WebHeaders& headers = {}) const;

 private:
  std::string mHost;
  int mPort;
  std::string mUser;
  std::string mPassword;
};

// One Server-Sent Events message.
struct StreamMessage {
  std::string event;
  std::string data;
};

class EventReader {
 public:
  // Opens GET /api/stream on 127.0.0.1:`port` and reads it until the server
  // ends it or the reader is destroyed.
  explicit EventReader(int port);
  ~EventReader();
  EventReader(const EventReader&) = delete;
  EventReader& operator=(const EventReader&) = delete;

  // The answer's status and headers, once they came (status -1 before).
  WebAnswer Head() const;
  std::vector<StreamMessage> Messages() const;
  // Waits until a message satisfies `match`, at or after the `from`th;
  // its index, or -1 on time-out.
  template <typename Match>
  int WaitFor(Match match, size_t from = 0, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  // Whether the server has ended the stream.
  bool Ended() const { return mEnded.load(); }
  bool WaitForEnd(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  // The bytes exactly as they came.
  std::string Raw() const;

 private:
  void Read(int port);
  void Take(const char* data, size_t size);
  int Find(const std::function<bool(const StreamMessage&)>& match, size_t from) const;
  bool WaitForIndex(const std::function<bool(const StreamMessage&)>& match, size_t from,
                    std::chrono::milliseconds timeout, int& index) const;

  mutable std::mutex mMutex;  // guards what follows
  WebAnswer mHead;
  std::string mRaw;
  std::string mPending;  // bytes of a message not yet ended
  std::vector<StreamMessage> mMessages;
  std::atomic<bool> mStop{false};
  std::atomic<bool> mEnded{false};
  std::thread mThread;
};

template <typename Match>
int EventReader::WaitFor(Match match, size_t from, std::chrono::milliseconds timeout) const {
  int index = -1;
  WaitForIndex(std::function<bool(const StreamMessage&)>(match), from, timeout, index);
  return index;
}

// A connection that asks for the stream with a small receive buffer and
// never reads: a browser that stopped reading. Owns the socket.
class StalledReader {
 public:
  explicit StalledReader(int port);
  ~StalledReader();
  StalledReader(const StalledReader&) = delete;
  StalledReader& operator=(const StalledReader&) = delete;

  bool Connected() const { return mFd >= 0; }
  // Whether the server has closed the connection (looked at without
  // reading).
  bool Closed() const;

 private:
  int mPort;
  int mFd = -1;
};

}  // namespace zel::fleet::test
