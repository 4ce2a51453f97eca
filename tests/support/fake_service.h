// A stand-in for the device-control service: a Unix datagram socket bound at a
// path of the test's choosing, served by its own thread, that records every
// request it receives and answers by a script. It is built on plain POSIX
// sockets, independent of the code under test. Every operation may be called
// from any thread; the object owns its socket, its socket file and its thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zel::test {

class FakeService {
 public:
  using Clock = std::chrono::steady_clock;
  using milliseconds = std::chrono::milliseconds;

  // What the service does with one request.
  struct Answer {
    bool reply = false;     // false: the request goes unanswered
    std::string text;       // the reply datagram's bytes, sent as they are
    milliseconds delay{0};  // how long after the request the reply leaves

    // A reply to the request's sender, at once or after `delay` (a request
    // from an unbound sender cannot be answered). A refusal is simply a reply
    // whose first field is not 1 (e.g. "0"); garbage and oversize replies are
    // texts like any other.
    static Answer Reply(std::string text, milliseconds delay = milliseconds(0));
    // No reply at all.
    static Answer Never();
  };

  // One received datagram.
  struct Request {
    std::string text;      // the bytes as they arrived
    std::string sender;    // the sender's socket path, empty if it is unbound
    uint32_t command = 0;  // the leading decimal number of `text`, 0 if none
    Clock::time_point received;
    // Replies to earlier requests that were scheduled but not yet sent when
    // this one arrived; nonzero means the client did not wait for its reply.
    size_t repliesOwed = 0;
  };

  // Binds the socket at `path` (an existing file there is replaced) and starts
  // serving. Throws std::runtime_error when the socket cannot be made.
  explicit FakeService(std::string path);
  // Stops the thread, closes the socket and removes its file; replies still
  // waiting for their delay are dropped.
  ~FakeService();
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;

  const std::string& path() const { return mPath; }

  // Answers for `command`, one per request in order; the last one then
  // answers every further request.
  void Script(uint32_t command, std::vector<Answer> answers);
  void Script(uint32_t command, Answer answer) { Script(command, std::vector<Answer>{std::move(answer)}); }
  // The answer to commands without a script; at first Never().
  void SetDefault(Answer answer);

  // Sends one datagram from the service's socket to any path (events, late
  // replies). True when the whole datagram was sent.
  bool SendTo(const std::string& path, const std::string& bytes);

  std::vector<Request> Requests() const;
  std::vector<Request> RequestsFor(uint32_t command) const;
  // Replies sent so far (SendTo datagrams not counted).
  size_t RepliesSent() const;

  // Wait until so many requests (of `command`), or replies, have been seen;
  // false on time-out.
  bool WaitForRequests(size_t count, milliseconds timeout = std::chrono::seconds(10)) const;
  bool WaitForRequestsFor(uint32_t command, size_t count, milliseconds timeout = std::chrono::seconds(10)) const;
  bool WaitForRepliesSent(size_t count, milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  struct PendingReply {
    Clock::time_point due;
    std::string destination;
    std::string text;
  };

  void Serve();
  void ReceiveAll();
  void Handle(std::string text, std::string sender);
  Answer NextAnswer(uint32_t command);
  void SendDueReplies();
  int PollTimeoutMs() const;
  size_t CountFor(uint32_t command) const;

  const std::string mPath;
  int mFd = -1;
  int mWakePipe[2] = {-1, -1};

  // Guards everything below; `mChanged` announces new requests and replies.
  mutable std::mutex mMutex;
  mutable std::condition_variable mChanged;
  std::map<uint32_t, std::vector<Answer>> mScript;
  std::map<uint32_t, size_t> mScriptUse;
  Answer mDefault;
  std::vector<Request> mRequests;
  std::vector<PendingReply> mPending;
  size_t mRepliesSent = 0;

  std::thread mThread;
};

}  // namespace zel::test
