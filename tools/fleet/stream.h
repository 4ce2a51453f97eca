// What the web command's two sides share: the fleet's thread (the link, the
// box directory, the runs) publishes the boxes' rows, their events and the
// broker link's state here, and the HTTP threads read them: the answer of
// GET /api/boxes, and the event streams (GET /api/stream), each with a
// bounded queue of the Server-Sent Events messages it has yet to write; a
// stream that falls behind by more than its queue holds is dropped. A POST
// /api/run becomes a ticket that the fleet's thread takes, runs and answers.
// Also the JSON texts of the API that depend on nothing else (the command
// list, the body of a run, an error object).
//
// Threading: the Hub's state is guarded by its mutex; the fleet's thread
// calls the publishing side, the HTTP threads the reading side, each call
// from any number of threads. A Stream and a RunTicket are shared between
// the Hub and the thread that serves them (shared_ptr).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/fleet/run.h"

namespace zel::fleet {

// A command to run, as POST /api/run asked for it.
struct RunRequest {
  static constexpr uint32_t kDefaultTimeoutMs = 5000;
  static constexpr uint32_t kMaxTimeoutMs = 600000;

  Target target;
  RunCommand command;
  uint32_t timeoutMs = kDefaultTimeoutMs;
};

// Reads the body of POST /api/run: {"target":"all"|ID|[ID...],
// "command":"ping"|"send 2 x"|..., "timeout":MS} (the time-out may be left
// out); false with why (for the answer's error object) otherwise.
bool ParseRunRequest(const std::string& body, RunRequest& request, std::string& why);

// [{"name":"ping","arguments":""},...]: the commands a run may carry, from
// the client core's command table.
std::string CommandsJson();

// {"error":WHY}.
std::string ErrorJson(const std::string& why);

// A run handed from an HTTP thread to the fleet's thread, and its answer.
class RunTicket {
 public:
  explicit RunTicket(RunRequest request) : mRequest(std::move(request)) {}

  const RunRequest& Request() const { return mRequest; }
  // The fleet's thread: the answer (an HTTP status and its JSON body).
  void Answer(int status, std::string body);
  // The HTTP thread: waits for the answer.
  void Wait(int& status, std::string& body);

 private:
  const RunRequest mRequest;
  std::mutex mMutex;  // guards what follows
  std::condition_variable mAnswered;
  bool mDone = false;
  int mStatus = 0;
  std::string mBody;
};

class Hub {
 public:
  using milliseconds = std::chrono::milliseconds;

  // The most events kept for a new stream's snapshot.
  static constexpr size_t kMaxEvents = 500;

  struct Limits {
    size_t streams = 64;                   // event streams at once
    size_t queueBytes = size_t{4} << 20U;  // what one stream may have waiting, past its snapshot
    size_t runs = 4;                       // runs at once
  };

  // One box as it is published: its stream row, and its `ls -j` object
  // (empty when the box is not listed: it has no status).
  struct Row {
    std::string box;
    std::string row;
    std::string listed;
  };

  // One reader of the event stream.
  class Stream {
   private:
    friend class Hub;
    std::deque<std::shared_ptr<const std::string>> mQueue;  // guarded by the hub's mutex
    size_t mQueued = 0;                                     // bytes in mQueue, past the snapshot
    bool mDropped = false;
  };

  // What Wait found.
  enum class Next : uint8_t { Data, Idle, End };
  // What SubmitRun made of a run.
  enum class Admitted : uint8_t { Yes, Busy, Stopped };

  explicit Hub(const Limits& limits);
  ~Hub();
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  // False when the wake-up descriptor could not be made.
  bool Ok() const { return mWakeFd >= 0; }

  // ---- The fleet's thread.
  // Readable while tickets wait (TakeRuns clears it).
  int WakeFd() const { return mWakeFd; }
  // The broker link's state; a change goes to every stream as a link
  // message.
  void SetBroker(bool up);
  // Rows that changed and new events (EVENT objects, oldest first), as one
  // batch to every stream.
  void Publish(const std::vector<Row>& rows, const std::vector<std::string>& events);
  // The second's tick to every stream.
  void Tick();
  // The tickets submitted since the last call.
  std::vector<std::shared_ptr<RunTicket>> TakeRuns();
  // A run has been answered: room for another.
  void RunEnded();
  // Ends every stream and answers every ticket waiting; nothing is taken
  // after.
  void Stop();

  // ---- The HTTP threads.
  // GET /api/boxes: the listed boxes' `ls -j` objects, sorted by box.
  std::string Boxes() const;
  // A new stream, its snapshot queued; nullptr when there are as many as the
  // limit allows or the hub has stopped.
  std::shared_ptr<Stream> Open();
  // Waits at most `timeout` for what `stream` has to write: Data with `out`
  // (every message waiting, at once), Idle when nothing came, End when the
  // stream was dropped or the hub stopped.
  Next Wait(Stream& stream, std::string& out, milliseconds timeout);
  // The stream's reader is gone.
  void Close(const Stream& stream);
  // Hands a run to the fleet's thread, unless as many are running as the
  // limit allows or the hub has stopped.
  Admitted SubmitRun(const std::shared_ptr<RunTicket>& ticket);

  // What the hub has now, for tests: streams open, and those dropped.
  size_t Streams() const;
  uint64_t Dropped() const;

 private:
  // Puts `message` on every stream's queue, dropping those that overflow;
  // with the mutex held.
  void Broadcast(const std::shared_ptr<const std::string>& message);
  std::string BrokerJson() const;
  std::shared_ptr<const std::string> Snapshot();
  void Wake() const;

  const Limits mLimits;
  int mWakeFd = -1;

  mutable std::mutex mMutex;  // guards everything below
  std::condition_variable mChanged;
  bool mStopped = false;
  bool mBrokerUp = false;
  std::map<std::string, Row> mRows;  // the published boxes, by ID
  std::deque<std::string> mEvents;   // the latest events, oldest first
  std::list<std::shared_ptr<Stream>> mStreams;
  uint64_t mDropped = 0;
  // The snapshot as of the last change, made when a stream first asks.
  std::shared_ptr<const std::string> mSnapshot;
  std::vector<std::shared_ptr<RunTicket>> mWaitingRuns;
  size_t mRuns = 0;  // submitted and not yet ended
};

}  // namespace zel::fleet
