#include "tools/bridge/mqtt_link.h"

#include <poll.h>
#include <syslog.h>

#include <algorithm>

// Everything libmosquitto does happens on this thread: the session's
// callbacks run inside Step, and a callback that ends the connection only
// notes why (the session cannot be destroyed from inside its own callback);
// Step ends it afterwards. A new session is made for every connection, so
// that libmosquitto never sends an old connection's messages on its own: the
// events it had not acknowledged go back to the outbox and out again first.
namespace zel::bridge {
namespace {

using std::chrono::milliseconds;

constexpr char kConnectText[] = "void zel::bridge::MqttLink::Connect()";
constexpr char kLoseText[] = "void zel::bridge::MqttLink::Lose(const std::string&)";
constexpr char kOnConnectedText[] = "void zel::bridge::MqttLink::OnConnected(int)";
// Its number and text are those of its first form, which took a vector.
constexpr char kOnSubscribedText[] = "void zel::bridge::MqttLink::OnSubscribed(int, const std::vector<int>&)";
constexpr char kSendText[] =
    "bool zel::bridge::MqttLink::Send(const std::string&, const std::string&, bool, const "
    "std::optional<std::string>&, int&)";
constexpr char kReportRefusalText[] = "void zel::bridge::MqttLink::ReportRefusal(const std::string&, int)";
constexpr char kDropRepliesText[] = "void zel::bridge::MqttLink::DropReplies()";
constexpr char kReportText[] = "void zel::bridge::MqttLink::ReportDroppedEvents()";
constexpr char kStartOfflineText[] = "void zel::bridge::MqttLink::StartOffline()";

const char kOnline[] = "online";
const char kOffline[] = "offline";
// The longest wait without a look at the connection, in milliseconds:
// libmosquitto keeps it alive from Step.
constexpr int kTickMs = 1000;
// How long the DISCONNECT may take to leave at the end.
constexpr milliseconds kDisconnectTime(1000);
constexpr uint64_t kMicrosecondsPerSecond = 1000000;
// The lowest reason code that is a refusal.
constexpr int kFirstRefusal = 0x80;

}  // namespace

MqttLink::MqttLink(const Settings& settings, const Topics& topics, EventOutbox& events, ReplyOutbox& replies,
                   ServiceState& service, Wakeup& wakeup, Intake intake)
    : mSettings(settings),
      mBrokerUrl(settings.broker.Url()),
      mTopics(topics),
      mEvents(events),
      mReplies(replies),
      mService(service),
      mWakeup(wakeup),
      mIntake(std::move(intake)) {}

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
    if (Handshaking() && mConnectDeadline.LeftUs() == 0) Lose("no answer within 10 s");
    PublishServiceChanges();
    if (mState == State::Online) {
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
  syslog(LOG_INFO, "%s %d: connecting to the broker at %s\n", kConnectText, 1, mBrokerUrl.c_str());
  MqttSession::Listener& listener = *this;
  mSession = std::make_unique<MqttSession>(mSettings, mTopics, listener);
  std::string why;
  if (!mSession->Start(why)) {
    Lose(why);
    return;
  }
  mState = State::Connecting;
  mConnectDeadline = zel::ipc::WaitDeadline(kConnectTimeout.count() * kMicrosecondsPerSecond);
}

void MqttLink::Lose(const std::string& why) {
  const bool wasOnline = mState == State::Online;
  mEvents.SetOnline(false, std::move(mInFlight));
  mInFlight.clear();
  mUnacknowledged.clear();
  mRefusalLogged = false;
  mSession.reset();
  mState = State::Idle;
  mLostWhy.clear();
  if (mGoOffline) {
    // The broker publishes the will for a connection lost this way.
    FinishOffline();
    return;
  }
  const unsigned wait = mBackoff.Next();
  mNextAttempt = zel::ipc::WaitDeadline(wait * kMicrosecondsPerSecond);
  syslog(LOG_WARNING, "%s %d: %s the broker at %s: %s; trying again in %u s\n", kLoseText, wasOnline ? 1 : 2,
         wasOnline ? "lost" : "cannot reach", mBrokerUrl.c_str(), why.c_str(), wait);
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
  if (::poll(fds, count, timeout) < 0) return 0;
  if ((fds[0].revents & POLLIN) != 0) mWakeup.Drain();
  return fds[1].revents;
}

void MqttLink::Step(short ready) {
  std::string why;
  const bool alive = mSession->Step((ready & (POLLIN | POLLERR | POLLHUP)) != 0, (ready & POLLOUT) != 0, why);
  // A callback's reason says more than libmosquitto's error after it (a
  // refused connection ends in a protocol error).
  if (!mLostWhy.empty()) {
    const std::string reason = mLostWhy;
    Lose(reason);
  } else if (!alive) {
    Lose(why);
  }
}

void MqttLink::StartOffline() {
  mOfflineStarted = true;
  if (mState != State::Online) {
    FinishOffline();
    return;
  }
  if (!Publish(mTopics.Status(), kOffline, true, std::nullopt, mOfflineMid)) {
    FinishOffline();
    return;
  }
  syslog(LOG_INFO, "%s %d: stopping: \"offline\" published on [%s]\n", kStartOfflineText, 1, mTopics.Status().c_str());
}

void MqttLink::FinishOffline() {
  std::lock_guard<std::mutex> lock(mOfflineMutex);
  mOfflineDone = true;
  mOfflineChanged.notify_all();
}

void MqttLink::Disconnect() {
  FinishOffline();
  if (!mSession) return;
  if (mState != State::Idle) {
    mSession->Disconnect();
    // The DISCONNECT leaves on the next writes; libmosquitto closes the
    // connection once it has.
    const zel::ipc::WaitDeadline deadline(std::chrono::microseconds(kDisconnectTime).count());
    std::string why;
    pollfd fd = {mSession->Fd(), POLLOUT, 0};
    while (mSession->WantWrite() && deadline.LeftUs() != 0 && mSession->Step(false, (fd.revents & POLLOUT) != 0, why)) {
      fd = {mSession->Fd(), POLLOUT, 0};
      ::poll(&fd, 1, deadline.LeftMs());
    }
  }
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
  int mid = 0;
  Publish(mTopics.Service(), ServiceState::Text(value), true, std::nullopt, mid);
}

void MqttLink::PublishReplies() {
  Publication reply;
  while (mState == State::Online && mReplies.Pop(reply)) {
    int mid = 0;
    Publish(reply.route.topic, reply.payload, false, reply.route.correlation, mid);
  }
}

void MqttLink::DropReplies() {
  Publication reply;
  while (mReplies.Pop(reply)) {
    syslog(LOG_WARNING, "%s %d: reply to [%s] dropped: not connected to the broker\n", kDropRepliesText, 1,
           reply.route.topic.c_str());
  }
}

void MqttLink::PublishEvents() {
  ReportDroppedEvents();
  OutgoingEvent event;
  while (mState == State::Online && mInFlight.size() < kEventWindow && mEvents.Pop(event)) {
    int mid = 0;
    if (!Send(event.topic, event.payload, false, std::nullopt, mid)) continue;
    event.mid = mid;
    mInFlight.push_back(std::move(event));
  }
}

void MqttLink::ReportDroppedEvents() {
  const uint64_t dropped = mEvents.TakeDropped();
  if (dropped == 0) return;
  syslog(LOG_WARNING, "%s %d: %llu events dropped, the oldest first: the queue keeps %u while the broker is away\n",
         kReportText, 1, static_cast<unsigned long long>(dropped), mSettings.queue);
}

bool MqttLink::Publish(const std::string& topic, const std::string& payload, bool retain,
                       const std::optional<std::string>& correlation, int& mid) {
  if (!Send(topic, payload, retain, correlation, mid)) return false;
  mUnacknowledged.push_back(OutgoingEvent{topic, std::string(), mid});
  return true;
}

bool MqttLink::Send(const std::string& topic, const std::string& payload, bool retain,
                    const std::optional<std::string>& correlation, int& mid) {
  const int rc = mSession->Publish(topic, payload, retain, correlation, mid);
  if (rc == MOSQ_ERR_SUCCESS) return true;
  if (rc == MOSQ_ERR_OVERSIZE_PACKET) {
    ++mOversized;
    syslog(LOG_ERR,
           "%s %d: dropped the message for [%s]: its payload of %zu bytes makes a packet larger than the broker takes "
           "(at most %u bytes); %llu dropped for their size so far\n",
           kSendText, 2, topic.c_str(), payload.size(), mSession->MaximumPacketSize(),
           static_cast<unsigned long long>(mOversized));
    return false;
  }
  syslog(LOG_ERR, "%s %d: cannot publish on [%s]: %s\n", kSendText, 1, topic.c_str(),
         MqttSession::ErrorText(rc).c_str());
  return false;
}

void MqttLink::ReportRefusal(const std::string& topic, int reason) {
  if (reason < kFirstRefusal || mRefusalLogged) return;
  mRefusalLogged = true;
  syslog(LOG_ERR, "%s %d: the broker refused the publication on [%s]: %s\n", kReportRefusalText, 1, topic.c_str(),
         mosquitto_reason_string(reason));
}

void MqttLink::OnConnected(int reason) {
  if (reason != 0) {
    mLostWhy = std::string("the broker refused the connection: ") + mosquitto_reason_string(reason);
    return;
  }
  mBackoff.Reset();
  syslog(LOG_INFO, "%s %d: connected to the broker at %s\n", kOnConnectedText, 1, mBrokerUrl.c_str());
  if (!mSession->SubscribeCommands(mSubscribeMid)) {
    mLostWhy = "cannot subscribe";
    return;
  }
  mState = State::Subscribing;
}

void MqttLink::OnSubscribed(int mid, int count, const int* granted) {
  if (mid != mSubscribeMid || mState != State::Subscribing) return;
  for (int i = 0; i < count && i < 2; ++i) {
    if (granted[i] < kFirstRefusal) continue;
    const std::string& topic = i == 0 ? mTopics.Command() : mTopics.AllCommand();
    mLostWhy = "the broker refused the subscription to [" + topic + "]: " + mosquitto_reason_string(granted[i]);
    return;
  }
  mState = State::Online;
  int statusMid = 0;
  Publish(mTopics.Status(), kOnline, true, std::nullopt, statusMid);
  mService.TakeChanges();
  PublishService(mService.Current());
  mEvents.SetOnline(true);
  syslog(LOG_INFO, "%s %d: online: commands taken from [%s] and [%s]\n", kOnSubscribedText, 1,
         mTopics.Command().c_str(), mTopics.AllCommand().c_str());
}

void MqttLink::OnPublished(int mid, int reason) {
  if (mid == mOfflineMid && mOfflineStarted) FinishOffline();
  // A refused event is not sent again: the broker would refuse it again.
  if (!Acknowledge(mUnacknowledged, mid, reason)) Acknowledge(mInFlight, mid, reason);
}

bool MqttLink::Acknowledge(std::list<OutgoingEvent>& messages, int mid, int reason) {
  for (auto entry = messages.begin(); entry != messages.end(); ++entry) {
    if (entry->mid != mid) continue;
    ReportRefusal(entry->topic, reason);
    messages.erase(entry);
    return true;
  }
  return false;
}

void MqttLink::OnMessage(const IncomingMessage& message) {
  if (mState != State::Online || mGoOffline) return;
  mIntake(message);
}

}  // namespace zel::bridge
