// The fleet's one connection to the broker, driven from its user's loop:
// connecting within a time-out, or keeping the connection (after a loss it
// connects again after the MQTT layer's back-off and makes every
// subscription again); subscribing and learning when the broker granted it;
// the sync marker, which tells when every retained message of the
// subscriptions made so far has arrived; publishing and learning when the
// broker acknowledged it; and every message that arrives handed to the
// receivers. Poll waits for the connection and for descriptors of the
// user's own (the stop signals' channel, a wakeup from other threads).
//
// Threading: one thread. The receivers get messages from inside Poll, while
// libmosquitto holds them: they must neither copy more than they checked
// nor close the link. A Done is called from Poll after the session's work,
// never from inside the call that asked for it. The receivers and the
// watcher outlive the link; it owns its session and its copy of the
// settings.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "tools/fleet/messages.h"
#include "tools/mqtt/backoff.h"
#include "tools/mqtt/connection.h"
#include "tools/mqtt/session.h"

namespace zel::fleet {

class Link final : private zel::mqtt::Session::Listener {
 public:
  using Clock = std::chrono::steady_clock;
  using milliseconds = std::chrono::milliseconds;
  // The broker's answer to a subscription, a sync or a publication.
  struct Answer {
    bool ok = true;
    int reason = 0;   // a publication's MQTT reason code (0x10: no one subscribed to its topic)
    std::string why;  // when not ok
  };
  using Done = std::function<void(const Answer& answer)>;

  class Receiver {
   public:
    virtual void OnMessage(const zel::mqtt::Message& message) = 0;

   protected:
    ~Receiver() = default;
  };

  // Told of a kept connection's changes.
  class Watcher {
   public:
    // Connected, with every subscription granted again.
    virtual void OnUp() = 0;
    // The connection failed or was lost: why, and how long until the next
    // attempt.
    virtual void OnDown(const std::string& why, milliseconds retryIn) = 0;

   protected:
    ~Watcher() = default;
  };

  // The largest packet the fleet takes, announced in CONNECT: room for a
  // payload over kMaxPayload with its topic and properties, so that such a
  // payload reaches the fleet's checks and is counted there rather than
  // dropped unseen by the broker; larger ones never arrive.
  static constexpr uint32_t kMaximumPacketSize = 1048576;
  // Unacknowledged QoS 1 messages the broker may have under way to the
  // fleet, announced in CONNECT: the most MQTT allows, so that the replies
  // of thousands of boxes at once never wait in the broker's queue for the
  // fleet (which drops them beyond max_queued_messages).
  static constexpr uint16_t kReceiveMaximum = 65535;

  // `settings` (copied) with the fleet's Maximum Packet Size and Receive
  // Maximum; `connectTimeout`: how long the broker may take to answer a
  // connection.
  Link(zel::mqtt::ConnectionSettings settings, const Topics& topics, milliseconds connectTimeout);
  ~Link() override;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  void AddReceiver(Receiver& receiver);
  void RemoveReceiver(Receiver& receiver);
  // Keeps the connection from now on, telling `watcher` of its changes.
  void Keep(Watcher& watcher);

  // Starts connecting; false with why when it cannot even start.
  bool Start(std::string& why);
  // Connected, and (when kept) every subscription granted again.
  bool Up() const { return mState == State::Up; }
  // The broker as messages name it: "mqtt://127.0.0.1:1883".
  std::string Url() const { return mSettings.broker.Url(); }

  // Subscribes to `filters` at `qos` (kept: again after every reconnection);
  // `done` is told of the broker's answer to this first one, a refusal
  // naming the filter and the reason. False with why when it cannot be sent
  // (no connection).
  bool Subscribe(const std::vector<std::string>& filters, int qos, Done done, std::string& why);
  // Ends the subscriptions to `filters` (made with Subscribe).
  void Unsubscribe(const std::vector<std::string>& filters);
  // Publishes the sync marker; `done` once it has come back. The broker has
  // then delivered every retained message of the subscriptions made before.
  bool Sync(Done done, std::string& why);
  // Publishes at QoS 1; `done` once the broker has acknowledged it or
  // refused it.
  bool Publish(const zel::mqtt::Publication& publication, Done done, std::string& why);

  // Waits at most `timeoutMs` for the connection and for `watched` (their
  // revents are set), then does the connection's work and calls what is
  // done. False with why once the connection is gone and not kept.
  bool Poll(int timeoutMs, std::vector<pollfd>& watched, std::string& why);

  // Disconnects, waiting at most `timeout` for the DISCONNECT to leave.
  void Close(milliseconds timeout);

 private:
  enum class State : uint8_t { Idle, Connecting, Resubscribing, Up, Gone };

  struct Subscription {
    std::vector<std::string> filters;
    int qos = 1;
  };
  struct Pending {
    int mid = 0;
    Done done;
    std::vector<std::string> filters;  // a subscription's, to name a refused one
    bool again = false;                // a kept subscription made again after a reconnection
  };

  void Connect();
  // The connection failed or was lost.
  void Lose(const std::string& why);
  void Finish(Pending pending, Answer answer);
  // Sends every kept subscription again, after a reconnection.
  bool Resubscribe(std::string& why);
  void GoUp();
  bool SendSubscription(const Subscription& subscription, int& mid, std::string& why);
  int WaitMs(int timeoutMs) const;
  void RunCompletions();

  void OnConnected(int reason) override;
  void OnSubscribed(int mid, int count, const int* granted) override;
  void OnPublished(int mid, int reason) override;
  void OnMessage(const zel::mqtt::Message& message) override;

  zel::mqtt::ConnectionSettings mSettings;
  const milliseconds mConnectTimeout;
  const std::string mMarker;  // this link's sync marker topic
  std::vector<Receiver*> mReceivers;
  Watcher* mWatcher = nullptr;  // set while the connection is kept
  zel::mqtt::Backoff mBackoff;

  std::unique_ptr<zel::mqtt::Session> mSession;
  State mState = State::Idle;
  Clock::time_point mConnectDeadline;
  Clock::time_point mNextAttempt;
  std::string mLostWhy;  // set by a callback that ends the connection
  std::list<Subscription> mKept;
  bool mMarkerSubscribed = false;
  size_t mResubscribing = 0;  // kept subscriptions made again and not yet answered
  int mSyncsSent = 0;
  std::list<Pending> mSyncs;  // by their number (as mid), oldest first
  std::list<Pending> mSubscriptions;
  std::list<Pending> mPublications;
  std::list<std::function<void()>> mCompletions;  // called at the end of Poll
};

// How a wait on a link ended.
enum class Waited : uint8_t { Done, TimedOut, Stopped, Gone };

// Polls `link` until `done()` holds, `deadline` has passed, `stopFd` (a
// stop signal's channel, -1 for none) is readable, or the connection is
// gone (why then says why).
Waited Await(Link& link, int stopFd, const std::function<bool()>& done, Link::Clock::time_point deadline,
             std::string& why);

}  // namespace zel::fleet
