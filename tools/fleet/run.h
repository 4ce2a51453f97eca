// A command run on boxes of the fleet, independent of how its results are
// shown (kendrivex-fleet run prints them; the web command returns them as
// JSON): the target (all, one ID, or IDs separated by commas) and the
// command, checked against the client core's command table; the boxes
// expected (every box online when the run starts, or the named ones, of
// which an offline or unknown one is reported at once); the command
// published to each expected box once, with a response topic inside the
// box's own topics (P/reply/RUN, so that it works under the broker's access
// control) and correlation data naming the run and the box; and one result
// per box, as its reply arrives or once it cannot come. A reply counts only
// when it comes on an expected box's P/reply/RUN, with the correlation data
// sent to that box, as the JSON object the bridge sends naming that box, and
// is the box's first: anything else is skipped and counted.
//
// Threading: the link's thread. The link, the topics and the observer
// outlive the run.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/fleet/directory.h"
#include "tools/fleet/link.h"
#include "tools/fleet/messages.h"
#include "tools/service_client/commands.h"
#include "tools/service_client/failure.h"

namespace zel::fleet {

// Whom a run is for.
struct Target {
  bool all = false;
  std::vector<std::string> boxes;  // the named ones, in the order given, each once
};
// "all", one ID, or IDs separated by commas; false with a usage failure.
bool ParseTarget(const std::string& text, Target& target, zel::service_client::Failure& failure);

// The command of a run: a line that kendrivex-ctl - takes.
struct RunCommand {
  zel::service_client::Request request;
  std::string line;  // what is published: the words joined by one blank
};
// The words of a command (ping, stations, mac, send N FIELD...), checked
// against the command table; false with a usage failure for an unknown
// command, one that a line of kendrivex-ctl - cannot hold (watch), or a word
// with a blank, tab or line end in it.
bool ParseRunCommand(const std::vector<std::string>& words, RunCommand& command, zel::service_client::Failure& failure);

// What came of the run on one box.
struct BoxResult {
  // As the run's exit status counts it.
  static constexpr int kSuccess = 0;
  static constexpr int kOtherwise = 1;  // answered, but not with success
  static constexpr int kNoAnswer = 3;   // did not answer, or could not be asked

  std::string box;
  int status = kSuccess;
  // The lines kendrivex-ctl would print for the reply, each begun by the
  // box's ID and a tab, escaped field by field; empty when there are none.
  std::string plain;
  // Why the box did not answer with success (status 1 or 3).
  std::string why;
  // The reply object as the bridge published it, re-serialised; for a box
  // that did not answer, {"box":ID,"status":3,"error":WHY}. No newline.
  std::string json;
};

class Run final : public Link::Receiver {
 public:
  using Clock = Link::Clock;
  using milliseconds = std::chrono::milliseconds;

  class Observer {
   public:
    // The expected boxes are known (before the result of any of them).
    virtual void OnLaunched(size_t expected) { static_cast<void>(expected); }
    // One box's result, as soon as it is known.
    virtual void OnResult(const BoxResult& result) = 0;

   protected:
    ~Observer() = default;
  };

  // Takes the link's messages from now until its end.
  Run(Link& link, const Topics& topics, Target target, RunCommand command, Observer& observer);
  // Ends the reply subscription.
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // The run's identifier, RUN in P/reply/RUN.
  const std::string& Id() const { return mId; }
  // What the box directory needs for the expected boxes: the status of every
  // box, or of the named ones.
  std::vector<std::string> StatusFilters() const;

  // Subscribes to the replies; false with why when it cannot.
  bool Prepare(std::string& why);
  // Fixes the expected boxes from `directory` (whose retained statuses are
  // in): a named box that is offline or unknown gets its result at once.
  // The command goes out to each expected box as soon as the reply
  // subscription is granted, and the boxes have `timeout` from then.
  void Launch(const BoxDirectory& directory, milliseconds timeout);
  // Every expected box has its result.
  bool Finished() const { return mLaunched && mOpen == 0; }
  // When the boxes that have not answered are given up; the far future
  // until the command has gone out.
  Clock::time_point Deadline() const { return mDeadline; }
  // Gives every box that has not answered its result: status 3, with
  // `why`, or by default "no reply within N ms".
  void Expire(const std::string& why = std::string());

  size_t Expected() const { return mBoxes.size(); }
  size_t Answered() const { return mBoxes.size() - mOpen; }
  // How many results had each status (0, 1, 3).
  size_t Counted(int status) const;
  const SkipCount& Skipped() const { return mSkipped; }

  void OnMessage(const zel::mqtt::Message& message) override;

 private:
  // An expected box.
  struct Asked {
    std::string correlation;  // what its reply must carry
    bool done = false;        // it has its result
  };

  void SendCommands();
  void Conclude(const BoxResult& result);
  void Unreachable(const std::string& box, const std::string& why);
  // The result of a reply that passed its checks.
  BoxResult Read(const std::string& box, const Reply& reply) const;

  Link& mLink;
  const Topics& mTopics;
  const Target mTarget;
  const RunCommand mCommand;
  Observer& mObserver;
  const std::string mId;
  const std::string mReplyFilter;  // PREFIX/+/reply/RUN
  bool mSubscribed = false;        // the reply subscription was sent
  bool mGranted = false;           // and granted
  bool mLaunched = false;
  bool mSent = false;
  std::string mRefusal;  // why the reply subscription failed
  milliseconds mTimeout{0};
  Clock::time_point mDeadline = Clock::time_point::max();
  std::map<std::string, Asked> mBoxes;  // the expected boxes
  size_t mOpen = 0;                     // expected boxes without a result
  size_t mCounts[4] = {};               // results by status
  SkipCount mSkipped;
  // The broker's answers may come after the run has ended: they find it
  // gone through this.
  std::shared_ptr<bool> mAlive;
};

// Runs `run` on a connected link that feeds `directory`: the expected
// boxes' statuses are read up to the sync marker (within `timeout`), then the
// command goes out and the replies are gathered until every expected box has
// its result or `timeout` has passed since the command went out, when the
// boxes left get theirs. Done at the end of the run; Stopped when `stopFd`
// became readable, TimedOut when the broker did not answer the
// subscriptions in time, Gone when the connection ended (with why; the
// boxes left then get theirs, saying so).
Waited Execute(Link& link, BoxDirectory& directory, Run& run, std::chrono::milliseconds timeout, int stopFd,
               std::string& why);

}  // namespace zel::fleet
