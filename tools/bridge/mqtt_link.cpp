#include "tools/bridge/mqtt_link.h"

#include <poll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>

// Everything libmosquitto does happens on this thread: the session's
// callbacks run inside Step, and a callback that ends the connection only
// notes why (the session cannot be destroyed from inside its own callback);
// Step ends it afterwards. A new session is made for every connection, so
// that libmosquitto never sends an old connection's messages on its own: the
// events it had not acknowledged go back to the outbox and out again first.
namespace zel::bridge {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char kConnectText[] = "void zel::bridge::MqttLink::Connect()";
constexpr char kLoseText[] = "void zel::bridge::MqttLink::Lose(const std::string&)";
constexpr char kOnConnectedText[] = "void zel::bridge::MqttLink::OnConnected(int)";
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
// The longest wait without a look at the connection: libmosquitto keeps it
// alive from Step.
constexpr milliseconds kTick(1000);
// How long the DISCONNECT may take to leave at the end.
constexpr milliseconds kDisconnectTime(1000);
// The lowest reason code that is a refusal.
constexpr int kFirstRefusal = 0x80;

int MillisecondsUntil(Clock::time_point then) {
  const auto left = std::chrono::duration_cast<milliseconds>(then - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

}  // namespace

MqttLink::MqttLink(const Settings& settings, const Topics& topics, EventOutbox& events, ReplyOutbox& replies,
                   ServiceState& service, Wakeup& wakeup, Intake intake)
    : mSettings(settings),
      mTopics(topics),
      mEvents(events),
      mReplies(replies),
      mService(service),
      mWakeup(wakeup),
      mIntake(std::move(intake)),
      mNextAttempt(Clock::now()) {}

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
    if (!mSession && !mGoOffline && Clock::now() >= mNextAttempt) Connect();
    if (Handshaking() && Clock::now() >= mConnectDeadline) Lose("no answer within 10 s");
    PublishServiceChanges();
    if (mState == State::Online) {
      PublishReplies();
      PublishEvents();
    } else {
      DropReplies();
    }
    Wait();
    if (mSession) Step();
  }
  Disconnect();
}

void MqttLink::Connect() {
  syslog(LOG_INFO, "%s %d: connecting to the broker at %s\n", kConnectText, 1, mSettings.broker.Url().c_str());
  MqttSession::Listener& listener = *this;
  mSession = std::make_unique<MqttSession>(mSettings, mTopics, listener);
  std::string why;
  if (!mSession->Start(why)) {
    Lose(why);
    return;
  }
  mState = State::Connecting;
  mConnectDeadline = Clock::now() + kConnectTimeout;
}

void MqttLink::Lose(const std::string& why) {
  const bool wasOnline = mState == State::Online;
  std::vector<OutgoingEvent> unacknowledged;
  for (auto& entry : mInFlight) unacknowledged.push_back(std::move(entry.second));
  mInFlight.clear();
  mUnacknowledged.clear();
  mRefusalLogged = false;
  mEvents.SetOnline(false, std::move(unacknowledged));
  mSession.reset();
  mState = State::Idle;
  mLostWhy.clear();
  if (mGoOffline) {
    // The broker publishes the will for a connection lost this way.
    FinishOffline();
    return;
  }
  const unsigned wait = mBackoff.Next();
  mNextAttempt = Clock::now() + std::chrono::seconds(wait);
  syslog(LOG_WARNING, "%s %d: %s the broker at %s: %s; trying again in %u s\n", kLoseText, wasOnline ? 1 : 2,
         wasOnline ? "lost" : "cannot reach", mSettings.broker.Url().c_str(), why.c_str(), wait);
}

void MqttLink::Wait() {
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
  int timeout = static_cast<int>(kTick.count());
  if (!mSession && !mGoOffline) timeout = std::min(timeout, MillisecondsUntil(mNextAttempt));
  if (Handshaking()) timeout = std::min(timeout, MillisecondsUntil(mConnectDeadline));
  if (::poll(fds, count, timeout) < 0 && errno != EINTR) return;
  if ((fds[0].revents & POLLIN) != 0) mWakeup.Drain();
}

void MqttLink::Step() {
  std::string why;
  const bool alive = mSession->Step(why);
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
    const Clock::time_point deadline = Clock::now() + kDisconnectTime;
    std::string why;
    while (mSession->WantWrite() && Clock::now() < deadline && mSession->Step(why)) {
      pollfd fd = {mSession->Fd(), POLLOUT, 0};
      ::poll(&fd, 1, MillisecondsUntil(deadline));
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
    if (Send(event.topic, event.payload, false, std::nullopt, mid)) mInFlight.emplace_back(mid, std::move(event));
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
  mUnacknowledged[mid] = topic;
  return true;
}

bool MqttLink::Send(const std::string& topic, const std::string& payload, bool retain,
                    const std::optional<std::string>& correlation, int& mid) {
  std::string why;
  if (mSession->Publish(topic, payload, retain, correlation, mid, why)) return true;
  syslog(LOG_ERR, "%s %d: cannot publish on [%s]: %s\n", kSendText, 1, topic.c_str(), why.c_str());
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
  syslog(LOG_INFO, "%s %d: connected to the broker at %s\n", kOnConnectedText, 1, mSettings.broker.Url().c_str());
  if (!mSession->Subscribe({mTopics.Command(), mTopics.AllCommand()}, mSubscribeMid)) {
    mLostWhy = "cannot subscribe";
    return;
  }
  mState = State::Subscribing;
}

void MqttLink::OnSubscribed(int mid, const std::vector<int>& granted) {
  if (mid != mSubscribeMid || mState != State::Subscribing) return;
  const std::string topics[] = {mTopics.Command(), mTopics.AllCommand()};
  for (size_t i = 0; i < granted.size() && i < 2; ++i) {
    if (granted[i] < kFirstRefusal) continue;
    mLostWhy = "the broker refused the subscription to [" + topics[i] + "]: " + mosquitto_reason_string(granted[i]);
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
  const auto other = mUnacknowledged.find(mid);
  if (other != mUnacknowledged.end()) {
    ReportRefusal(other->second, reason);
    mUnacknowledged.erase(other);
    return;
  }
  const auto entry = std::find_if(mInFlight.begin(), mInFlight.end(), [mid](const auto& e) { return e.first == mid; });
  if (entry == mInFlight.end()) return;
  // A refused event is not sent again: the broker would refuse it again.
  ReportRefusal(entry->second.topic, reason);
  mInFlight.erase(entry);
}

void MqttLink::OnMessage(const IncomingMessage& message) {
  if (mState != State::Online || mGoOffline) return;
  mIntake(message);
}

}  // namespace zel::bridge
