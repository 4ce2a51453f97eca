// The bridge's link to the broker, on a thread of its own that alone uses
// libmosquitto. It connects (again, with the back-off, whenever the broker is
// away), subscribes to the box's command topics and then publishes P/status
// "online", publishes P/service, the events (QoS 1; those the broker had not
// acknowledged when it went away go out again first) and the replies, and
// hands each command that arrives to the intake, in arrival order. A clean
// stop publishes "offline" before it disconnects. Owns its thread and
// session; the outboxes, the service state and the wakeup are the bridge's.
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
#include <vector>

#include "ipc/wait_deadline.h"
#include "tools/bridge/backoff.h"
#include "tools/bridge/event_outbox.h"
#include "tools/bridge/mqtt_session.h"
#include "tools/bridge/reply_outbox.h"
#include "tools/bridge/service_state.h"
#include "tools/bridge/settings.h"
#include "tools/bridge/topics.h"
#include "tools/bridge/wakeup.h"

namespace zel::bridge {

class MqttLink : private MqttSession::Listener {
 public:
  // Called on the link's thread for each command that arrives.
  using Intake = std::function<void(const IncomingMessage& message)>;

  // Events handed to the broker and not yet acknowledged, at most.
  static constexpr size_t kEventWindow = 256;
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
  enum class State { Idle, Connecting, Subscribing, Online };

  void Run();
  // Connecting or subscribing: the broker has yet to answer.
  bool Handshaking() const { return mState == State::Connecting || mState == State::Subscribing; }
  void Connect();
  // The connection failed or was lost: what the broker had not acknowledged
  // goes back to the outbox, and the next attempt waits for the back-off.
  void Lose(const std::string& why);
  // Waits for the wakeup, the connection or the next thing due; what the
  // connection's descriptor is ready for (poll's revents).
  short Wait();
  void Step(short ready);
  void StartOffline();
  void FinishOffline();
  void Disconnect();

  void PublishServiceChanges();
  void PublishService(ServiceState::Value value);
  void PublishReplies();
  void DropReplies();
  void PublishEvents();
  void ReportDroppedEvents();
  // Says (once per connection: a broker's access rules that refuse one
  // publication refuse them all) that the broker refused one.
  void ReportRefusal(const std::string& topic, int reason);
  // Takes message `mid`, which the broker has acknowledged, off `messages`,
  // and reports a refusal; false when it is not there.
  bool Acknowledge(std::list<OutgoingEvent>& messages, int mid, int reason);
  // Publishes a message other than an event, remembering its topic until
  // the broker acknowledges it.
  bool Publish(const std::string& topic, const std::string& payload, bool retain,
               const std::optional<std::string>& correlation, int& mid);
  // Hands a message to the session; false (and logged) when it cannot go.
  // One larger than the broker takes is dropped and counted: a broker closes
  // a connection that sends it one, so it would otherwise be sent again after
  // every reconnection.
  bool Send(const std::string& topic, const std::string& payload, bool retain,
            const std::optional<std::string>& correlation, int& mid);

  void OnConnected(int reason) override;
  void OnSubscribed(int mid, int count, const int* granted) override;
  void OnPublished(int mid, int reason) override;
  void OnMessage(const IncomingMessage& message) override;

  const Settings& mSettings;
  const std::string mBrokerUrl;  // as the log names the broker
  const Topics& mTopics;
  EventOutbox& mEvents;
  ReplyOutbox& mReplies;
  ServiceState& mService;
  Wakeup& mWakeup;
  Intake mIntake;

  // The link's thread alone uses these.
  std::unique_ptr<MqttSession> mSession;
  State mState = State::Idle;
  Backoff mBackoff;
  zel::ipc::WaitDeadline mNextAttempt{0};
  zel::ipc::WaitDeadline mConnectDeadline{0};
  int mSubscribeMid = -1;
  int mOfflineMid = -1;
  bool mOfflineStarted = false;
  bool mRefusalLogged = false;
  uint64_t mOversized = 0;  // messages dropped for their size since the start
  std::string mLostWhy;     // set by a callback that ends the connection
  // Events handed to the session and not yet acknowledged, oldest first, by
  // message id.
  std::list<OutgoingEvent> mInFlight;
  // The other publications not yet acknowledged, by message id: only their
  // topics are kept (the payloads are left empty).
  std::list<OutgoingEvent> mUnacknowledged;

  std::atomic<bool> mGoOffline{false};
  std::atomic<bool> mStop{false};
  std::mutex mOfflineMutex;  // guards mOfflineDone
  std::condition_variable mOfflineChanged;
  bool mOfflineDone = false;
  std::thread mThread;
};

}  // namespace zel::bridge
