#include "tests/support/fake_service.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace zel::test {
namespace {

// Requests are read whole up to this size; the client never sends more.
constexpr size_t kReceiveBufferSize = 65536;

bool MakeAddress(const std::string& path, sockaddr_un& address, socklen_t& length) {
  std::memset(&address, 0, sizeof address);
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  return true;
}

std::string SenderPath(const sockaddr_un& address, socklen_t length) {
  const size_t offset = offsetof(sockaddr_un, sun_path);
  if (length <= offset) return std::string();
  const size_t max = std::min<size_t>(length - offset, sizeof address.sun_path);
  return std::string(address.sun_path, strnlen(address.sun_path, max));
}

}  // namespace

FakeService::Answer FakeService::Answer::Reply(std::string text, milliseconds delay) {
  Answer answer;
  answer.reply = true;
  answer.text = std::move(text);
  answer.delay = delay;
  return answer;
}

FakeService::Answer FakeService::Answer::Never() { return Answer(); }

FakeService::FakeService(std::string path) : mPath(std::move(path)) {
  sockaddr_un address;
  socklen_t length = 0;
  if (!MakeAddress(mPath, address, length)) throw std::runtime_error("fake service path unusable");
  mFd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (mFd < 0) throw std::runtime_error("fake service socket failed");
  ::unlink(mPath.c_str());
  if (::bind(mFd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || ::pipe2(mWakePipe, O_CLOEXEC) != 0) {
    ::close(mFd);
    throw std::runtime_error("fake service bind failed");
  }
  mThread = std::thread([this] { Serve(); });
}

FakeService::~FakeService() {
  const char stop = 's';
  ssize_t ignored = ::write(mWakePipe[1], &stop, 1);
  (void)ignored;
  mThread.join();
  ::close(mWakePipe[0]);
  ::close(mWakePipe[1]);
  ::close(mFd);
  ::unlink(mPath.c_str());
}

void FakeService::Script(uint32_t command, std::vector<Answer> answers) {
  std::lock_guard<std::mutex> lock(mMutex);
  mScript[command] = std::move(answers);
  mScriptUse[command] = 0;
}

void FakeService::SetDefault(Answer answer) {
  std::lock_guard<std::mutex> lock(mMutex);
  mDefault = std::move(answer);
}

bool FakeService::SendTo(const std::string& path, const std::string& bytes) {
  sockaddr_un address;
  socklen_t length = 0;
  if (!MakeAddress(path, address, length)) return false;
  const ssize_t sent =
      ::sendto(mFd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address), length);
  return sent >= 0 && static_cast<size_t>(sent) == bytes.size();
}

std::vector<FakeService::Request> FakeService::Requests() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mRequests;
}

std::vector<FakeService::Request> FakeService::RequestsFor(uint32_t command) const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<Request> matching;
  for (const Request& request : mRequests) {
    if (request.command == command) matching.push_back(request);
  }
  return matching;
}

size_t FakeService::RepliesSent() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mRepliesSent;
}

bool FakeService::WaitForRequests(size_t count, milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return mRequests.size() >= count; });
}

bool FakeService::WaitForRequestsFor(uint32_t command, size_t count, milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return CountFor(command) >= count; });
}

bool FakeService::WaitForRepliesSent(size_t count, milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return mRepliesSent >= count; });
}

size_t FakeService::CountFor(uint32_t command) const {
  return static_cast<size_t>(
      std::count_if(mRequests.begin(), mRequests.end(), [command](const Request& r) { return r.command == command; }));
}

void FakeService::Serve() {
  while (true) {
    pollfd fds[2] = {
        {mFd,          POLLIN, 0},
        {mWakePipe[0], POLLIN, 0}
    };
    if (::poll(fds, 2, PollTimeoutMs()) < 0 && errno != EINTR) return;
    if (fds[1].revents != 0) return;
    if (fds[0].revents & POLLIN) ReceiveAll();
    SendDueReplies();
  }
}

int FakeService::PollTimeoutMs() const {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mPending.empty()) return -1;
  const auto now = Clock::now();
  const auto next =
      std::min_element(mPending.begin(), mPending.end(), [](const PendingReply& a, const PendingReply& b) {
        return a.due < b.due;
      })->due;
  if (next <= now) return 0;
  // Rounded up, so that the reply is due when poll returns.
  return static_cast<int>(std::chrono::ceil<milliseconds>(next - now).count());
}

void FakeService::ReceiveAll() {
  std::vector<char> buffer(kReceiveBufferSize);
  while (true) {
    sockaddr_un sender;
    socklen_t length = sizeof sender;
    std::memset(&sender, 0, sizeof sender);
    const ssize_t n =
        ::recvfrom(mFd, buffer.data(), buffer.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sender), &length);
    if (n < 0) return;
    Handle(std::string(buffer.data(), static_cast<size_t>(n)), SenderPath(sender, length));
    // Immediate replies leave before the next request is looked at.
    SendDueReplies();
  }
}

void FakeService::Handle(std::string text, std::string sender) {
  Request request;
  request.command = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
  request.received = Clock::now();
  request.text = std::move(text);
  request.sender = std::move(sender);

  std::lock_guard<std::mutex> lock(mMutex);
  request.repliesOwed = mPending.size();
  const Answer answer = NextAnswer(request.command);
  if (answer.reply && !request.sender.empty()) {
    mPending.push_back(PendingReply{request.received + answer.delay, request.sender, answer.text});
  }
  mRequests.push_back(std::move(request));
  mChanged.notify_all();
}

FakeService::Answer FakeService::NextAnswer(uint32_t command) {
  const auto script = mScript.find(command);
  if (script == mScript.end() || script->second.empty()) return mDefault;
  size_t& used = mScriptUse[command];
  const size_t index = std::min(used, script->second.size() - 1);
  ++used;
  return script->second[index];
}

void FakeService::SendDueReplies() {
  std::vector<PendingReply> due;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    const auto now = Clock::now();
    // Replies leave in the order they fall due; equal times keep request order.
    std::stable_sort(mPending.begin(), mPending.end(),
                     [](const PendingReply& a, const PendingReply& b) { return a.due < b.due; });
    auto firstLater =
        std::find_if(mPending.begin(), mPending.end(), [now](const PendingReply& r) { return r.due > now; });
    due.assign(std::make_move_iterator(mPending.begin()), std::make_move_iterator(firstLater));
    mPending.erase(mPending.begin(), firstLater);
  }
  if (due.empty()) return;
  for (const PendingReply& reply : due) SendTo(reply.destination, reply.text);
  std::lock_guard<std::mutex> lock(mMutex);
  mRepliesSent += due.size();
  mChanged.notify_all();
}

}  // namespace zel::test
