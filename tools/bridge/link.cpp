#include "tools/bridge/link.h"

#include <poll.h>
#include <syslog.h>

#include <algorithm>

#include "tools/service_client/output.h"

// Everything of the session happens on this thread: its callbacks run inside
// Step, and a callback that ends the connection only notes why (the session
// cannot be destroyed from inside its own callback); Step ends it afterwards.
// A new session is made for every connection, so that libmosquitto never
// sends an old connection's messages on its own: the events it had not
// acknowledged go back to the outbox and out again first.
//
// What Mosquitto 2.0.11 does, found by experiment and in its source:
// - A client that connects with the client id of a connected one takes the
//   session over: the broker closes the old connection, without the MQTT 5
//   DISCONNECT of reason 0x8E that a broker may send (Mosquitto 2.0.11 sends
//   none: the old client sees a lost connection), and publishes the old
//   connection's will at once (clean start). With a Will Delay Interval the
//   broker drops the old will instead, but it then delays the will of a
//   connection that really dies too, by 1 to 2 s (its timer runs once a
//   second; 1.66 s measured), where a killed bridge must show "offline"
//   within 2 s; so the will is not delayed.
// - So a bridge learns that its session was taken over from a DISCONNECT
//   0x8E, or when it comes back after a lost connection: it subscribes to
//   its own P/status first, and a retained status there that another run
//   published (each status and the will carry the run's "instance") means
//   that a second box with this name connected meanwhile. It then leaves
//   (a DISCONNECT, so that no will of its own goes out) and waits at least
//   a minute, growing as the back-off does; the other box reconnects at
//   once and stays. The status reads "offline", then "online", once per
//   such attempt: at most once a minute per shared name.
// - A subscription refused by the dynamic-security plugin is answered with
//   the SUBACK reason 0x87 (not authorized); an acl_file grants it (0x00)
//   and passes nothing on.
// - A broker that stops answering is noticed by libmosquitto's keep-alive
//   (MOSQ_ERR_KEEPALIVE, "Unknown error" in its own texts): a ping after
//   kKeepAliveSeconds without traffic, and the connection closed when
//   another kKeepAliveSeconds pass without an answer.
namespace zel::bridge {
namespace {

using std::chrono::milliseconds;
namespace mqtt = zel::mqtt;

const char kOnline[] = "online";
const char kOffline[] = "offline";
// The longest wait without a look at the connection, in milliseconds:
// the session keeps it alive from Step.
constexpr int kTickMs = 1000;
// How long the DISCONNECT may take to leave at the end.
constexpr milliseconds kDisconnectTime(1000);
// How long a bridge that subscribed again after a lost connection waits for
// the retained status of another box before it goes online (the broker sends
// the retained messages of a subscription after its acknowledgement).
constexpr uint64_t kSettleUs = 500000;
// How long the DISCONNECT of a bridge that leaves a session taken over may
// take.
constexpr milliseconds kLeaveTime(200);
constexpr uint64_t kMicrosecondsPerMillisecond = 1000;
constexpr uint64_t kMicrosecondsPerSecond = 1000000;

// A wait as the log gives it: whole seconds.
unsigned Seconds(milliseconds wait) { return static_cast<unsigned>((wait.count() + 500) / 1000); }

}  // namespace

MqttLink::MqttLink(const Settings& settings, const Topics& topics, EventOutbox& events, ReplyOutbox& replies,
                   ServiceState& service, Wakeup& wakeup, Intake intake)
    : mSettings(settings),
      mBrokerUrl(settings.connection.broker.Url()),
      mTopics(topics),
      mEvents(events),
      mReplies(replies),
      mService(service),
      mWakeup(wakeup),
      mIntake(std::move(intake)),
      mBackoff(mqtt::Backoff::Seed()) {}

MqttLink::~MqttLink() { Stop(); }

void MqttLink::Start() {
  mThread = std::thread([this] { Run(); });
}

void MqttLink::GoOffline(milliseconds timeout) {
  mGoOffline = true;
  mWakeup.Notify();
  std::unique_lock<std::mutex> lock(mOfflineMutex);
  mOfflineChanged.wait_for(lock, timeout, [this] { return mOfflineDone; });
}

void MqttLink::Stop() {
  if (!mThread.joinable()) return;
  if (!mGoOffline) GoOffline(kDisconnectTime);
  mStop = true;
  mWakeup.Notify();
  mThread.join();
}

void MqttLink::Run() {
  while (!mStop) {
    if (mGoOffline && !mOfflineStarted) StartOffline();
    if (!mSession && !mGoOffline && mNextAttempt.LeftUs() == 0) Connect();
    if (mState == State::Settling && mSettleDeadline.LeftUs() == 0) GoOnline();
    if (Handshaking() && mConnectDeadline.LeftUs() == 0) Lose(Loss::Failed, "no answer within 10 s");
    PublishServiceChanges();
    if (mState == State::Online) {
      ReportDropped();
      PublishReplies();
      PublishEvents();
    } else {
      DropReplies();
    }
    const short ready = Wait();
    if (mSession) Step(ready);
  }
  Disconnect();
}

void MqttLink::Connect() {
  zel::service_client::Log(LOG_INFO, "connecting to the broker at %s as %s", mBrokerUrl.c_str(),
                           mSettings.connection.clientId.c_str());
  mqtt::Session::Listener& listener = *this;
  mSession = std::make_unique<mqtt::Session>(mSettings.connection, listener);
  std::string why;
  if (!mSession->Start(why)) {
    Lose(Loss::Failed, why);
    return;
  }
  mState = State::Connecting;
  mConnectDeadline = zel::ipc::WaitDeadline(kConnectTimeout.count() * kMicrosecondsPerSecond);
}

void MqttLink::Lose(Loss loss, const std::string& why) {
  const bool wasOnline = mState == State::Online;
  const bool takenOver = loss == Loss::TakenOver || (mSession && mSession->TakenOver());
  // Leaving a session that another box took: no will.
  if (loss == Loss::TakenOver && mSession) mSession->Close(kLeaveTime);
  mEvents.SetOnline(false, std::move(mInFlight));
  mInFlight.clear();
  mUnacknowledged.clear();
  mRefusalLogged = false;
  mSession.reset();
  mState = State::Idle;
  mLostWhy.clear();
  mLostAs = Loss::Failed;
  if (mGoOffline) {
    // The broker publishes the will for a connection lost this way.
    FinishOffline();
    return;
  }
  const milliseconds wait = takenOver ? mBackoff.TakenOver() : mBackoff.Next();
  mNextAttempt = zel::ipc::WaitDeadline(static_cast<uint64_t>(wait.count()) * kMicrosecondsPerMillisecond);
  if (takenOver) {
    zel::service_client::Log(
        LOG_WARNING,
        "the client id %s is already in use at the broker at %s: another client took the session over (a second box "
        "with the id %s?); trying again in %u s",
        mSettings.connection.clientId.c_str(), mBrokerUrl.c_str(), mSettings.id.c_str(), Seconds(wait));
  } else if (loss == Loss::Refused) {
    zel::service_client::Log(LOG_WARNING, "the broker at %s refused %s; trying again in %u s", mBrokerUrl.c_str(),
                             why.c_str(), Seconds(wait));
  } else {
    zel::service_client::Log(LOG_WARNING, "%s the broker at %s: %s; trying again in %u s",
                             wasOnline ? "lost" : "cannot reach", mBrokerUrl.c_str(), why.c_str(), Seconds(wait));
  }
}

short MqttLink::Wait() {
  pollfd fds[2] = {
      {mWakeup.Fd(), POLLIN, 0},
      {-1,           0,      0}
  };
  nfds_t count = 1;
  const int fd = mSession ? mSession->Fd() : -1;
  if (fd >= 0) {
    fds[1] = {fd, static_cast<short>(POLLIN | (mSession->WantWrite() ? POLLOUT : 0)), 0};
    count = 2;
  }
  int timeout = kTickMs;
  if (!mSession && !mGoOffline) timeout = std::min(timeout, mNextAttempt.LeftMs());
  if (Handshaking()) timeout = std::min(timeout, mConnectDeadline.LeftMs());
  if (mState == State::Settling) timeout = std::min(timeout, mSettleDeadline.LeftMs());
  if (::poll(fds, count, timeout) < 0) return 0;
  if ((fds[0].revents & POLLIN) != 0) mWakeup.Drain();
  return fds[1].revents;
}

void MqttLink::Step(short ready) {
  std::string why;
  const bool alive = mSession->Step((ready & (POLLIN | POLLERR | POLLHUP)) != 0, (ready & POLLOUT) != 0, why);
  // A callback's reason says more than the session's error after it (a
  // refused connection ends in a protocol error).
  if (!mLostWhy.empty()) {
    const std::string reason = mLostWhy;
    Lose(mLostAs, reason);
  } else if (!alive) {
    Lose(Loss::Failed, why);
  }
}

void MqttLink::StartOffline() {
  mOfflineStarted = true;
  if (mState != State::Online) {
    FinishOffline();
    return;
  }
  mqtt::Publication offline(mTopics.Status(), kOffline, true);
  offline.userProperty = mSettings.instance;
  if (!Publish(std::move(offline))) {
    FinishOffline();
    return;
  }
  mOfflineMid = mUnacknowledged.back().mid;
  zel::service_client::Log(LOG_INFO, "stopping: \"offline\" published on %s", mTopics.Status().c_str());
}

void MqttLink::FinishOffline() {
  std::lock_guard<std::mutex> lock(mOfflineMutex);
  mOfflineDone = true;
  mOfflineChanged.notify_all();
}

void MqttLink::Disconnect() {
  FinishOffline();
  if (!mSession) return;
  if (mState != State::Idle) mSession->Close(kDisconnectTime);
  mSession.reset();
  mState = State::Idle;
}

void MqttLink::PublishServiceChanges() {
  const std::vector<ServiceState::Value> changes = mService.TakeChanges();
  if (mState != State::Online) return;
  for (ServiceState::Value value : changes) PublishService(value);
}

void MqttLink::PublishService(ServiceState::Value value) {
  if (value == ServiceState::Value::Unknown) return;
  Publish(mqtt::Publication{mTopics.Service(), ServiceState::Text(value), true});
}

void MqttLink::PublishReplies() {
  Outgoing reply;
  while (mState == State::Online && mUnacknowledged.size() < kWindow && mReplies.Pop(reply)) {
    Publish(std::move(reply.message));
  }
}

void MqttLink::DropReplies() {
  Outgoing reply;
  while (mReplies.Pop(reply)) {
    zel::service_client::Log(LOG_WARNING, "the reply to %s is dropped: not connected to the broker",
                             reply.message.topic.c_str());
  }
}

void MqttLink::PublishEvents() {
  Outgoing event;
  while (mState == State::Online && mInFlight.size() < kWindow && mEvents.Pop(event)) {
    if (!Send(event.message, event.mid)) continue;
    mInFlight.push_back(std::move(event));
  }
}

void MqttLink::ReportDropped() {
  const uint64_t events = mEvents.TakeDropped();
  if (events != 0) {
    zel::service_client::Log(LOG_WARNING,
                             "%llu events dropped, the oldest first: the queue keeps %u while the broker is away",
                             static_cast<unsigned long long>(events), mSettings.queue);
  }
  const uint64_t replies = mReplies.TakeDropped();
  if (replies != 0) {
    zel::service_client::Log(LOG_WARNING, "%llu replies dropped, the oldest first: at most %zu wait for the broker",
                             static_cast<unsigned long long>(replies), ReplyOutbox::kMaxReplies);
  }
}

bool MqttLink::Publish(mqtt::Publication message) {
  int mid = 0;
  if (!Send(message, mid)) return false;
  // Only the topic is needed to report a refusal.
  message.payload.clear();
  mUnacknowledged.push_back(Outgoing{std::move(message), mid});
  return true;
}

bool MqttLink::Send(const mqtt::Publication& message, int& mid) {
  const int rc = mSession->Publish(message, mid);
  if (rc == 0) return true;
  if (rc == mqtt::Session::kOversize) {
    ++mOversized;
    zel::service_client::Log(
        LOG_ERR,
        "dropped the message for %s: its payload of %zu bytes makes a packet larger than the broker takes (at most "
        "%u bytes); %llu dropped for their size so far",
        message.topic.c_str(), message.payload.size(), mSession->BrokerMaximumPacketSize(),
        static_cast<unsigned long long>(mOversized));
    return false;
  }
  ++mUnsent;
  zel::service_client::Log(
      LOG_ERR, "dropped the message for %s: it cannot be published: %s; %llu dropped for such reasons so far",
      message.topic.c_str(), mqtt::ErrorText(rc).c_str(), static_cast<unsigned long long>(mUnsent));
  return false;
}

void MqttLink::ReportRefusal(const std::string& topic, int reason) {
  if (reason < mqtt::kFirstRefusal || mRefusalLogged) return;
  mRefusalLogged = true;
  zel::service_client::Log(LOG_ERR, "the broker refused the publication on %s: %s", topic.c_str(),
                           mqtt::ReasonText(reason).c_str());
}

void MqttLink::OnConnected(int reason) {
  if (reason != 0) {
    mLostAs = Loss::Refused;
    mLostWhy = "the connection: " + mqtt::ReasonText(reason);
    return;
  }
  zel::service_client::Log(LOG_INFO, "connected to the broker at %s", mBrokerUrl.c_str());
  // The box's own status first, with what is retained there but without
  // its own publications; then the commands, without what is retained.
  mqtt::Session::SubscribeOptions status;
  status.noLocal = true;
  mqtt::Session::SubscribeOptions commands;
  commands.retained = false;
  std::string why;
  if (!mSession->Subscribe({mTopics.Status()}, status, mStatusMid, why) ||
      !mSession->Subscribe({mTopics.Command(), mTopics.AllCommand()}, commands, mSubscribeMid, why)) {
    mLostWhy = "cannot subscribe: " + why;
    return;
  }
  mState = State::Subscribing;
}

void MqttLink::OnSubscribed(int mid, int count, const int* granted) {
  if (mid != mSubscribeMid || mState != State::Subscribing) return;
  for (int i = 0; i < count && i < 2; ++i) {
    if (granted[i] < mqtt::kFirstRefusal) continue;
    const std::string& topic = i == 0 ? mTopics.Command() : mTopics.AllCommand();
    mLostAs = Loss::Refused;
    mLostWhy = "the subscription to " + topic + ": " + mqtt::ReasonText(granted[i]);
    return;
  }
  if (mWasOnline) {
    mState = State::Settling;
    mSettleDeadline = zel::ipc::WaitDeadline(kSettleUs);
    return;
  }
  GoOnline();
}

void MqttLink::GoOnline() {
  mState = State::Online;
  mWasOnline = true;
  mBackoff.Up();
  mqtt::Publication online(mTopics.Status(), kOnline, true);
  online.userProperty = mSettings.instance;
  Publish(std::move(online));
  PublishService(mService.TakeCurrent());
  mEvents.SetOnline(true);
  zel::service_client::Log(LOG_INFO, "online: taking commands from %s and %s", mTopics.Command().c_str(),
                           mTopics.AllCommand().c_str());
}

void MqttLink::OnPublished(int mid, int reason) {
  if (mid == mOfflineMid && mOfflineStarted) FinishOffline();
  // A refused event is not sent again: the broker would refuse it again.
  if (!Acknowledge(mUnacknowledged, mid, reason)) Acknowledge(mInFlight, mid, reason);
}

bool MqttLink::Acknowledge(std::list<Outgoing>& messages, int mid, int reason) {
  for (auto entry = messages.begin(); entry != messages.end(); ++entry) {
    if (entry->mid != mid) continue;
    ReportRefusal(entry->message.topic, reason);
    messages.erase(entry);
    return true;
  }
  return false;
}

void MqttLink::OnMessage(const mqtt::Message& message) {
  if (message.topic == mTopics.Status()) {
    // Only what was retained there before this connection says anything.
    const bool foreign = message.retain && message.userProperty && message.userProperty->name == "instance" &&
                         message.userProperty->value != mSettings.instance.value;
    if (foreign && mWasOnline && mState != State::Online && mLostWhy.empty()) {
      mLostAs = Loss::TakenOver;
      mLostWhy = "another box took the session over";
    }
    return;
  }
  if (mState != State::Online || mGoOffline) return;
  mIntake(message);
}

}  // namespace zel::bridge
