// The bridge's link to the broker, on a thread of its own that alone uses the
// MQTT session. It connects (again, after the back-off, whenever the broker
// is away; after at least a minute when another client took its session
// over), subscribes to the box's command topics and then publishes P/status
// "online", publishes P/service, the events (QoS 1; those the broker had not
// acknowledged when it went away go out again first) and the replies, at most
// kWindow of each unacknowledged, and hands each command that arrives to the
// intake, in arrival order. A clean stop publishes "offline" before it
// disconnects. Owns its thread and session; the outboxes, the service state
// and the wakeup are the bridge's.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ipc/wait_deadline.h"
#include "tools/bridge/outbox.h"
#include "tools/bridge/service.h"
#include "tools/bridge/settings.h"
#include "tools/mqtt/backoff.h"
#include "tools/mqtt/session.h"

namespace zel::bridge {

class MqttLink : private zel::mqtt::Session::Listener {
 public:
  // Called on the link's thread for each command that arrives.
  using Intake = std::function<void(const zel::mqtt::Message& message)>;

  // Events, and other messages, handed to the broker and not yet
  // acknowledged, at most.
  static constexpr size_t kWindow = 256;
  // How long the broker may take to answer a connection and the
  // subscription.
  static constexpr std::chrono::seconds kConnectTimeout{10};

  MqttLink(const Settings& settings, const Topics& topics, EventOutbox& events, ReplyOutbox& replies,
           ServiceState& service, Wakeup& wakeup, Intake intake);
  // Stops the thread (see Stop) if it runs.
  ~MqttLink() override;
  MqttLink(const MqttLink&) = delete;
  MqttLink& operator=(const MqttLink&) = delete;

  void Start();
  // The first half of a clean stop: no more commands are taken nor
  // connections made, and "offline" goes out. Returns once the broker has
  // acknowledged it, at once when the link is not online, or after
  // `timeout`.
  void GoOffline(std::chrono::milliseconds timeout);
  // Disconnects (after GoOffline if it was not called) and ends the thread.
  void Stop();

 private:
  // Settling: subscribed again after a lost connection, waiting a moment for
  // the retained status that says whether another box took the session.
  enum class State { Idle, Connecting, Subscribing, Settling, Online };
  // Why a connection ended, for the back-off and the log.
  enum class Loss { Failed, Refused, TakenOver };

  void Run();
  // Connecting or subscribing: the broker has yet to answer.
  bool Handshaking() const { return mState != State::Idle && mState != State::Online; }
  void Connect();
  // The connection failed or was lost: what the broker had not acknowledged
  // goes back to the outbox, and the next attempt waits for the back-off.
  void Lose(Loss loss, const std::string& why);
  // Waits for the wakeup, the connection or the next thing due; what the
  // connection's descriptor is ready for (poll's revents).
  short Wait();
  void Step(short ready);
  void GoOnline();
  void StartOffline();
  void FinishOffline();
  void Disconnect();

  void PublishServiceChanges();
  void PublishService(ServiceState::Value value);
  void PublishReplies();
  void DropReplies();
  void PublishEvents();
  void ReportDropped();
  // Says (once per connection: a broker's access rules that refuse one
  // publication refuse them all) that the broker refused one.
  void ReportRefusal(const std::string& topic, int reason);
  // Takes message `mid`, which the broker has acknowledged, off `messages`,
  // and reports a refusal; false when it is not there.
  bool Acknowledge(std::list<Outgoing>& messages, int mid, int reason);
  // Publishes a message other than an event, remembering its topic until
  // the broker acknowledges it.
  bool Publish(zel::mqtt::Publication message);
  // Hands a message to the session; false (logged and counted) when it
  // cannot go. One larger than the broker takes is dropped: a broker closes
  // a connection that sends it one, so it would otherwise be sent again
  // after every reconnection.
  bool Send(const zel::mqtt::Publication& message, int& mid);

  void OnConnected(int reason) override;
  void OnSubscribed(int mid, int count, const int* granted) override;
  void OnPublished(int mid, int reason) override;
  void OnMessage(const zel::mqtt::Message& message) override;

  const Settings& mSettings;
  const std::string mBrokerUrl;  // as the log names the broker
  const Topics& mTopics;
  EventOutbox& mEvents;
  ReplyOutbox& mReplies;
  ServiceState& mService;
  Wakeup& mWakeup;
  Intake mIntake;

  // The link's thread alone uses these.
  std::unique_ptr<zel::mqtt::Session> mSession;
  State mState = State::Idle;
  zel::mqtt::Backoff mBackoff;
  zel::ipc::WaitDeadline mNextAttempt{0};
  zel::ipc::WaitDeadline mConnectDeadline{0};
  int mStatusMid = -1;
  int mSubscribeMid = -1;
  bool mWasOnline = false;  // online before, in this run
  zel::ipc::WaitDeadline mSettleDeadline{0};
  int mOfflineMid = -1;
  bool mOfflineStarted = false;
  bool mRefusalLogged = false;
  uint64_t mOversized = 0;  // messages dropped for their size since the start
  uint64_t mUnsent = 0;     // messages dropped for another reason since the start
  // Set by a callback that ends the connection (the session cannot be
  // destroyed from inside its own callback).
  std::string mLostWhy;
  Loss mLostAs = Loss::Failed;
  // Events handed to the session and not yet acknowledged, oldest first, by
  // message id.
  std::list<Outgoing> mInFlight;
  // The other publications not yet acknowledged, by message id: only their
  // topics are kept.
  std::list<Outgoing> mUnacknowledged;

  std::atomic<bool> mGoOffline{false};
  std::atomic<bool> mStop{false};
  std::mutex mOfflineMutex;  // guards mOfflineDone
  std::condition_variable mOfflineChanged;
  bool mOfflineDone = false;
  std::thread mThread;
};

}  // namespace zel::bridge
