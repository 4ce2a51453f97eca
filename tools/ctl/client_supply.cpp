#include "tools/ctl/client_supply.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/ctl/preflight.h"
#include "tools/ctl/signal_block.h"
#include "tools/ctl/signal_cleanup.h"

// Why retired clients stay bound: the protocol has no request ids, so a reply
// that comes after its request timed out is read as the reply to whatever
// the same socket sends next. The next request therefore goes out on a new
// client, and the old one keeps its path (swallowing the late reply unread),
// because the library gives each new client the first free of this process's
// ten slot paths and would otherwise hand the same path out again. When all
// ten are taken, the supply moves on to a private directory below the given
// one; the old directory is never used again, so its retired clients can go.
namespace zel::ctl {
namespace {

constexpr char kRetireText[] = "void zel::ctl::ClientSupply::Retire()";
constexpr char kMoveText[] = "bool zel::ctl::ClientSupply::MoveToPrivateDirectory(zel::ctl::Failure&)";

constexpr int kClientSlots = 10;
// mkdtemp's pattern below the given directory; short, so that socket paths
// still fit.
const char kPrivatePattern[] = "/ctl-XXXXXX";
// Others may pass through to reach the sockets (a service running as another
// user must answer), but not add files.
constexpr mode_t kPrivateMode = 0755;

std::string SlotPath(const std::string& dir, int slot) {
  std::string base = dir;
  if (!base.empty() && base.back() == '/') base.pop_back();
  return base + "/ipc_client-" + std::to_string(::getpid()) + "-" + std::to_string(slot);
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

// The slot paths of this process in `dir` that something occupies.
std::vector<bool> OccupiedSlots(const std::string& dir) {
  std::vector<bool> occupied(kClientSlots);
  for (int slot = 0; slot < kClientSlots; ++slot) occupied[slot] = Exists(SlotPath(dir, slot));
  return occupied;
}

// The slot that is occupied now and was not before: the new client's.
std::string NewSlotPath(const std::string& dir, const std::vector<bool>& before) {
  for (int slot = 0; slot < kClientSlots; ++slot) {
    if (!before[slot] && Exists(SlotPath(dir, slot))) return SlotPath(dir, slot);
  }
  return std::string();
}

}  // namespace

ClientSupply::ClientSupply(const Settings& settings) : mSettings(settings), mDir(settings.dir) {}

ClientSupply::~ClientSupply() {
  Discard(mCurrent);
  DropRetired();
  RemovePrivateDirectory();
}

zel::ipc::IPCClient* ClientSupply::Current(Failure& failure) {
  if (!mCurrent.client && !Make(failure)) return nullptr;
  return mCurrent.client.get();
}

void ClientSupply::Retire() {
  if (!mCurrent.client) return;
  syslog(LOG_INFO, "%s %d: no reply on [%s]; it stays bound and the next request uses a new path\n", kRetireText, 1,
         mCurrent.path.c_str());
  mRetired.push_back(std::move(mCurrent));
  mCurrent = Held();
}

bool ClientSupply::Make(Failure& failure) {
  if (TryMake(mCurrent)) return true;
  // Only slots that this supply itself holds are worth a move: a directory
  // full of other files would fill up again.
  const std::vector<bool> occupied = OccupiedSlots(mDir);
  const bool full = std::find(occupied.begin(), occupied.end(), false) == occupied.end();
  if (full && !mRetired.empty() && MoveToPrivateDirectory(failure)) {
    if (TryMake(mCurrent)) return true;
  } else if (full && !mRetired.empty()) {
    return false;
  }
  failure = Preflight::WhyNoClient(mSettings.servicePath, mDir, false);
  return false;
}

bool ClientSupply::TryMake(Held& held) {
  const std::vector<bool> before = OccupiedSlots(mDir);
  auto client = std::make_unique<zel::ipc::IPCClient>();
  client->SetReplyTimeout(mSettings.TimeoutUs());
  client->SetUnregisterAtExit(false);
  // The socket file and its clean-up entry appear together.
  SignalBlock block;
  if (!client->SetLocalPath(mSettings.servicePath, mDir, nullptr)) return false;
  held.client = std::move(client);
  held.path = NewSlotPath(mDir, before);
  if (!held.path.empty()) SignalCleanup::Add(held.path, false);
  return true;
}

bool ClientSupply::MoveToPrivateDirectory(Failure& failure) {
  DropRetired();
  RemovePrivateDirectory();
  std::string pattern = mSettings.dir;
  if (!pattern.empty() && pattern.back() == '/') pattern.pop_back();
  pattern += kPrivatePattern;
  if (Preflight::LongestClientPath(pattern, false).size() > Preflight::kMaxSocketPath) {
    failure = Fail(kStatusLocal, mSettings.dir, "no free client socket path, and no room for a directory of its own");
    return false;
  }
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  {
    SignalBlock block;
    if (::mkdtemp(name.data()) == nullptr) {
      failure = Fail(kStatusLocal, pattern, ErrorText(errno));
      return false;
    }
    mPrivateDir = name.data();
    SignalCleanup::Add(mPrivateDir, true);
  }
  ::chmod(mPrivateDir.c_str(), kPrivateMode);
  mDir = mPrivateDir;
  syslog(LOG_INFO, "%s %d: all client socket paths taken; going on in [%s]\n", kMoveText, 1, mDir.c_str());
  return true;
}

void ClientSupply::DropRetired() {
  for (Held& held : mRetired) Discard(held);
  mRetired.clear();
}

void ClientSupply::Discard(Held& held) {
  held.client.reset();
  if (!held.path.empty()) SignalCleanup::Remove(held.path);
  held.path.clear();
}

void ClientSupply::RemovePrivateDirectory() {
  if (mPrivateDir.empty()) return;
  ::rmdir(mPrivateDir.c_str());
  SignalCleanup::Remove(mPrivateDir);
  mPrivateDir.clear();
}

}  // namespace zel::ctl
