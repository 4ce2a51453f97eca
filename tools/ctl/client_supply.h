// The request clients of a one-shot command or a batch: the current one, and
// the ones retired after an unanswered request, kept bound so that no late
// reply reaches a later request. One thread; owns every client it made.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ipc/ipc_client.h"
#include "tools/ctl/failure.h"
#include "tools/ctl/settings.h"

namespace zel::ctl {

class ClientSupply {
 public:
  explicit ClientSupply(const Settings& settings);
  // Destroys every client (removing its socket file) and the private
  // directory.
  ~ClientSupply();
  ClientSupply(const ClientSupply&) = delete;
  ClientSupply& operator=(const ClientSupply&) = delete;

  // The client for the next request, made when there is none; nullptr with
  // the failure when none can be made.
  zel::ipc::IPCClient* Current(Failure& failure);
  // The current client's request went unanswered: it is kept aside, and the
  // next request gets a new client.
  void Retire();

 private:
  struct Held {
    std::unique_ptr<zel::ipc::IPCClient> client;
    std::string path;
  };

  bool Make(Failure& failure);
  bool TryMake(Held& held);
  bool MoveToPrivateDirectory(Failure& failure);
  void DropRetired();
  // Destroys the client (its socket file goes with it) and forgets its path.
  static void Discard(Held& held);
  void RemovePrivateDirectory();

  const Settings& mSettings;
  std::string mDir;         // where clients are made now
  std::string mPrivateDir;  // our own directory, once the given one ran out of slots
  Held mCurrent;
  std::vector<Held> mRetired;
};

}  // namespace zel::ctl
