// Runs one command of a one-shot or batch: sends its request on the current
// client, prints the reply (plain or JSON) and reports any failure as one
// line on standard error. A request that goes unanswered retires its client,
// so that a late reply can never be taken for the next request's. One thread.
#pragma once

#include <string>

#include "ipc/ipc_types.h"
#include "tools/ctl/client_supply.h"
#include "tools/ctl/command_request.h"
#include "tools/ctl/output.h"
#include "tools/ctl/settings.h"

namespace zel::ctl {

class RequestRunner {
 public:
  RequestRunner(const Settings& settings, ClientSupply& supply, Output& output)
      : mSettings(settings), mSupply(supply), mOutput(output) {}

  // The command's exit status. `where` goes before the command word in an
  // error line ("line 3: " in a batch).
  int Run(const CommandRequest& request, const std::string& where);

 private:
  // The status for a reply, having printed what it holds.
  int Print(const CommandRequest& request, const zel::ipc::IPCResult& result, Failure& failure);
  // Why no reply came: the service went away, or it is silent.
  Failure NoReply(const CommandRequest& request) const;

  const Settings& mSettings;
  ClientSupply& mSupply;
  Output& mOutput;
};

}  // namespace zel::ctl
