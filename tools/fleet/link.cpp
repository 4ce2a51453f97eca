#include "tools/fleet/link.h"

#include <algorithm>
#include <utility>

#include "util/decimal_text.h"

// How the fleet knows that the retained messages are all in: after its
// subscriptions it subscribes to a marker topic of its own (unique to the
// link, below PREFIX/all/, where no box publishes or subscribes) and
// publishes a marker there. Mosquitto handles one client's packets in the
// order they come, one at a time: while it handles a SUBSCRIBE it puts the
// matching retained messages at the end of the client's outgoing lists
// (handle__subscribe and retain__queue, src/handle_subscribe.c and
// src/retain.c of Mosquitto 2.0), and it reads the marker's PUBLISH only
// after that, so the marker's copy is appended behind them. Delivered at the
// same QoS as they are, it cannot overtake them: the marker's echo arrives
// after every retained message of the subscriptions made before it. No
// fixed wait, and nothing to guess when the broker is slow or the retained
// messages are many. Measured on 2000 retained statuses, and at the central
// broker of a federation; this is Mosquitto's way, not a promise of MQTT (a
// clustered broker may send retained messages on their own).
//
// Retained messages at QoS 1 wait in the broker's queue for the client
// beyond its Receive Maximum, and are dropped beyond the queue's limit
// (max_queued_messages, 1000 by default): the statuses of more than a
// thousand boxes at QoS 1 would be cut short, and a QoS 0 marker would
// overtake those waiting. So the directory's subscriptions and the marker's
// are at QoS 0: all of them go out as they are queued, in order. The broker
// may still drop messages to a client that reads too slowly (beyond
// max_queued_messages packets unwritten); the marker, at the same QoS, is
// then as likely to be dropped, and the sync times out rather than ending
// early. The marker is published at QoS 1, so that a broker whose access
// rules refuse it says so at once.
namespace zel::fleet {
namespace {

namespace mqtt = zel::mqtt;
using std::chrono::milliseconds;

// The longest wait without a look at the connection: the session keeps it
// alive from Step.
constexpr int kTickMs = 1000;
constexpr int kMarkerQos = 0;
const char kNotConnected[] = "not connected to the broker";

int MsUntil(Link::Clock::time_point when) {
  const auto left = std::chrono::ceil<milliseconds>(when - Link::Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, kTickMs));
}

}  // namespace

Link::Link(mqtt::ConnectionSettings settings, const Topics& topics, milliseconds connectTimeout)
    : mSettings(std::move(settings)),
      mConnectTimeout(connectTimeout),
      mMarker(topics.Marker(NewRunId())),
      mBackoff(mqtt::Backoff::Seed()) {
  mSettings.maximumPacketSize = kMaximumPacketSize;
  mSettings.receiveMaximum = kReceiveMaximum;
}

Link::~Link() = default;

void Link::AddReceiver(Receiver& receiver) { mReceivers.push_back(&receiver); }

void Link::RemoveReceiver(Receiver& receiver) {
  mReceivers.erase(std::remove(mReceivers.begin(), mReceivers.end(), &receiver), mReceivers.end());
}

void Link::Keep(Watcher& watcher) { mWatcher = &watcher; }

bool Link::Start(std::string& why) {
  Connect();
  if (mState != State::Gone) return true;
  why = mLostWhy;
  return false;
}

void Link::Connect() {
  mqtt::Session::Listener& listener = *this;
  mSession = std::make_unique<mqtt::Session>(mSettings, listener);
  mLostWhy.clear();
  std::string why;
  if (!mSession->Start(why)) {
    Lose(why);
    return;
  }
  mState = State::Connecting;
  mConnectDeadline = Clock::now() + mConnectTimeout;
}

void Link::Lose(const std::string& why) {
  mSession.reset();
  mLostWhy = why;
  const Answer lost{false, 0, why};
  for (Pending& pending : mSubscriptions) Finish(std::move(pending), lost);
  for (Pending& pending : mPublications) Finish(std::move(pending), lost);
  for (Pending& sync : mSyncs) Finish(std::move(sync), lost);
  mSubscriptions.clear();
  mPublications.clear();
  mSyncs.clear();
  if (mWatcher == nullptr) {
    mState = State::Gone;
    return;
  }
  mState = State::Idle;
  mBackoff.Down();
  const milliseconds wait = mBackoff.Next();
  mNextAttempt = Clock::now() + wait;
  Watcher* watcher = mWatcher;
  mCompletions.emplace_back([watcher, why, wait] { watcher->OnDown(why, wait); });
}

void Link::Finish(Pending pending, Answer answer) {
  if (!pending.done) return;
  mCompletions.emplace_back([done = std::move(pending.done), answer = std::move(answer)] { done(answer); });
}

bool Link::Subscribe(const std::vector<std::string>& filters, int qos, Done done, std::string& why) {
  if (mState != State::Up) {
    why = kNotConnected;
    return false;
  }
  const Subscription subscription{filters, qos};
  int mid = 0;
  if (!SendSubscription(subscription, mid, why)) return false;
  mKept.push_back(subscription);
  mSubscriptions.push_back(Pending{mid, std::move(done), filters, false});
  return true;
}

bool Link::SendSubscription(const Subscription& subscription, int& mid, std::string& why) {
  mqtt::Session::SubscribeOptions options;
  options.qos = subscription.qos;
  return mSession->Subscribe(subscription.filters, options, mid, why);
}

void Link::Unsubscribe(const std::vector<std::string>& filters) {
  const auto kept = std::find_if(mKept.begin(), mKept.end(), [&filters](const Subscription& subscription) {
    return subscription.filters == filters;
  });
  if (kept != mKept.end()) mKept.erase(kept);
  std::string why;
  // Without a connection there is nothing to end: the next one makes only
  // what is kept.
  if (mState == State::Up) mSession->Unsubscribe(filters, why);
}

bool Link::Sync(Done done, std::string& why) {
  if (mState != State::Up) {
    why = kNotConnected;
    return false;
  }
  if (!mMarkerSubscribed) {
    const Subscription marker{{mMarker}, kMarkerQos};
    int mid = 0;
    if (!SendSubscription(marker, mid, why)) return false;
    mKept.push_back(marker);
    // A marker that the broker will not send back would leave every sync
    // waiting to its deadline: they end with the refusal instead.
    const auto refused = [this](const Answer& answer) {
      if (answer.ok) return;
      for (Pending& sync : mSyncs) Finish(std::move(sync), answer);
      mSyncs.clear();
    };
    mSubscriptions.push_back(Pending{mid, refused, marker.filters, false});
    mMarkerSubscribed = true;
  }
  const int number = ++mSyncsSent;
  const auto refused = [this, number](const Answer& answer) {
    if (answer.ok) return;
    const auto sync =
        std::find_if(mSyncs.begin(), mSyncs.end(), [number](const Pending& entry) { return entry.mid == number; });
    if (sync == mSyncs.end()) return;
    Finish(std::move(*sync), Answer{false, answer.reason, "the sync marker on " + mMarker + ": " + answer.why});
    mSyncs.erase(sync);
  };
  if (!Publish(mqtt::Publication(mMarker, zel::util::DecimalText(static_cast<uint32_t>(number))), refused, why)) {
    return false;
  }
  mSyncs.push_back(Pending{number, std::move(done), {}, false});
  return true;
}

bool Link::Publish(const mqtt::Publication& publication, Done done, std::string& why) {
  if (mState != State::Up) {
    why = kNotConnected;
    return false;
  }
  int mid = 0;
  const int rc = mSession->Publish(publication, mid);
  if (rc == mqtt::Session::kOversize) {
    why = "the message makes a packet larger than the broker takes";
    return false;
  }
  if (rc != 0) {
    why = mqtt::ErrorText(rc);
    return false;
  }
  mPublications.push_back(Pending{mid, std::move(done), {}, false});
  return true;
}

bool Link::Poll(int timeoutMs, std::vector<pollfd>& watched, std::string& why) {
  if (mState == State::Idle && mWatcher != nullptr && Clock::now() >= mNextAttempt) Connect();
  if ((mState == State::Connecting || mState == State::Resubscribing) && Clock::now() >= mConnectDeadline) {
    Lose("no answer within " + zel::util::DecimalText(static_cast<uint32_t>(mConnectTimeout.count())) + " ms");
  }
  std::vector<pollfd> fds = watched;
  const int fd = mSession ? mSession->Fd() : -1;
  if (fd >= 0) fds.push_back(pollfd{fd, static_cast<short>(POLLIN | (mSession->WantWrite() ? POLLOUT : 0)), 0});
  const int ready =
      mCompletions.empty() && mState != State::Gone ? ::poll(fds.data(), fds.size(), WaitMs(timeoutMs)) : 0;
  for (size_t i = 0; i < watched.size(); ++i) watched[i].revents = ready > 0 ? fds[i].revents : short{0};
  if (mSession) {
    const short revents = fd >= 0 && ready > 0 ? fds.back().revents : short{0};
    std::string stepWhy;
    const bool alive = mSession->Step((revents & (POLLIN | POLLERR | POLLHUP)) != 0, (revents & POLLOUT) != 0, stepWhy);
    // A callback's reason says more than the session's error after it (a
    // refused connection ends in a protocol error).
    if (!mLostWhy.empty()) {
      Lose(std::string(mLostWhy));
    } else if (!alive) {
      Lose(stepWhy);
    }
  }
  RunCompletions();
  if (mState != State::Gone) return true;
  why = mLostWhy;
  return false;
}

int Link::WaitMs(int timeoutMs) const {
  int wait = std::clamp(timeoutMs, 0, kTickMs);
  if (mState == State::Idle && mWatcher != nullptr) wait = std::min(wait, MsUntil(mNextAttempt));
  if (mState == State::Connecting || mState == State::Resubscribing) wait = std::min(wait, MsUntil(mConnectDeadline));
  return wait;
}

void Link::RunCompletions() {
  while (!mCompletions.empty()) {
    const std::function<void()> completion = std::move(mCompletions.front());
    mCompletions.pop_front();
    completion();
  }
}

void Link::Close(milliseconds timeout) {
  mWatcher = nullptr;
  if (mSession && mState != State::Idle) mSession->Close(timeout);
  mSession.reset();
  mState = State::Gone;
  mLostWhy = "closed";
}

bool Link::Resubscribe(std::string& why) {
  for (const Subscription& subscription : mKept) {
    int mid = 0;
    if (!SendSubscription(subscription, mid, why)) return false;
    mSubscriptions.push_back(Pending{mid, nullptr, subscription.filters, true});
    ++mResubscribing;
  }
  return true;
}

void Link::GoUp() {
  mState = State::Up;
  mBackoff.Up();
  if (mWatcher != nullptr) mCompletions.emplace_back([watcher = mWatcher] { watcher->OnUp(); });
}

void Link::OnConnected(int reason) {
  if (reason != 0) {
    mLostWhy = "the broker refused the connection: " + mqtt::ReasonText(reason);
    return;
  }
  if (mKept.empty()) {
    GoUp();
    return;
  }
  std::string why;
  mResubscribing = 0;
  if (!Resubscribe(why)) {
    mLostWhy = "cannot subscribe: " + why;
    return;
  }
  mState = State::Resubscribing;
}

void Link::OnSubscribed(int mid, int count, const int* granted) {
  const auto pending = std::find_if(mSubscriptions.begin(), mSubscriptions.end(),
                                    [mid](const Pending& entry) { return entry.mid == mid; });
  if (pending == mSubscriptions.end()) return;
  std::string refusal;
  for (int i = 0; i < count && static_cast<size_t>(i) < pending->filters.size(); ++i) {
    if (granted[i] < mqtt::kFirstRefusal) continue;
    refusal = "the broker refused the subscription to " + pending->filters[static_cast<size_t>(i)] + ": " +
              mqtt::ReasonText(granted[i]);
    break;
  }
  const bool again = pending->again;
  Finish(std::move(*pending), Answer{refusal.empty(), 0, refusal});
  mSubscriptions.erase(pending);
  if (!again) return;
  if (!refusal.empty()) {
    mLostWhy = refusal;
  } else if (--mResubscribing == 0 && mState == State::Resubscribing) {
    GoUp();
  }
}

void Link::OnPublished(int mid, int reason) {
  const auto pending = std::find_if(mPublications.begin(), mPublications.end(),
                                    [mid](const Pending& entry) { return entry.mid == mid; });
  if (pending == mPublications.end()) return;
  const bool ok = reason < mqtt::kFirstRefusal;
  Finish(std::move(*pending),
         Answer{ok, reason, ok ? std::string() : "the broker refused it: " + mqtt::ReasonText(reason)});
  mPublications.erase(pending);
}

void Link::OnMessage(const mqtt::Message& message) {
  if (message.topic == mMarker) {
    uint64_t number = 0;
    const size_t kMaxDigits = 10;
    if (message.payload.size() > kMaxDigits ||
        !zel::util::ParseDecimal(std::string(message.payload), UINT32_MAX, number)) {
      return;
    }
    while (!mSyncs.empty() && static_cast<uint64_t>(mSyncs.front().mid) <= number) {
      Finish(std::move(mSyncs.front()), Answer());
      mSyncs.pop_front();
    }
    return;
  }
  for (Receiver* receiver : mReceivers) receiver->OnMessage(message);
}

Waited Await(Link& link, int stopFd, const std::function<bool()>& done, Link::Clock::time_point deadline,
             std::string& why) {
  std::vector<pollfd> watched;
  if (stopFd >= 0) watched.push_back(pollfd{stopFd, POLLIN, 0});
  while (!done()) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Link::Clock::now()).count();
    if (left <= 0) return Waited::TimedOut;
    if (!link.Poll(static_cast<int>(std::min<int64_t>(left, kTickMs)), watched, why)) {
      return done() ? Waited::Done : Waited::Gone;
    }
    if (stopFd >= 0 && (watched[0].revents & POLLIN) != 0) return Waited::Stopped;
  }
  return Waited::Done;
}

}  // namespace zel::fleet
