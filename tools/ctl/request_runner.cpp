#include "tools/ctl/request_runner.h"

#include "tools/ctl/line_format.h"
#include "tools/ctl/preflight.h"

namespace zel::ctl {
namespace {

// The client's own code for a request that got no reply (or could not be
// sent); a service's reply with this code and no fields looks the same.
bool Unanswered(const zel::ipc::IPCResult& result) {
  return result.code == zel::ipc::ResultIoFailure && result.args.empty();
}

std::string AnsweredCode(int32_t code) { return "the service answered with code " + std::to_string(code); }

// A reply that needs its first field: its text, or why it is not a success.
bool FirstField(const zel::ipc::IPCResult& result, const char* missing, std::string& text, std::string& why) {
  if (result.code != zel::ipc::ResultSuccess) {
    why = AnsweredCode(result.code);
    return false;
  }
  if (result.args.empty()) {
    why = missing;
    return false;
  }
  text = result.args[0] + "\n";
  return true;
}

}  // namespace

int RequestRunner::Run(const CommandRequest& request, const std::string& where) {
  Failure failure;
  zel::ipc::IPCClient* client = mSupply.Current(failure);
  int status = kStatusUnreachable;
  if (client != nullptr) {
    const zel::ipc::IPCResult result = client->SendRequest(zel::ipc::IPCRequest{request.number, request.fields});
    if (Unanswered(result)) {
      mSupply.Retire();
      failure = NoReply(request);
    } else {
      status = Print(request, result, failure);
    }
  }
  if (client == nullptr || failure.status != kStatusOk) {
    failure.what = where + failure.what;
    Output::Report(failure);
    return failure.status;
  }
  return status;
}

int RequestRunner::Print(const CommandRequest& request, const zel::ipc::IPCResult& result, Failure& failure) {
  if (mSettings.json) mOutput.Write(LineFormat::JsonReply(request.entry->name, result));
  std::string text;
  std::string why;
  bool success = false;
  switch (request.entry->kind) {
    case CommandKind::Ping:
      success = FirstField(result, "the service's reply holds no answer", text, why);
      break;
    case CommandKind::Mac:
      success = FirstField(result, "the service's reply holds no MAC address", text, why);
      break;
    case CommandKind::Stations:
      success = result.code == zel::ipc::ResultSuccess;
      if (!success) why = AnsweredCode(result.code);
      for (const std::string& station : result.args) text += station + "\n";
      break;
    case CommandKind::Send:
    case CommandKind::Watch:
      // The reply is printed whatever its code.
      text = LineFormat::PlainReply(result);
      success = result.code == zel::ipc::ResultSuccess;
      if (!success) why = AnsweredCode(result.code);
      break;
  }
  const bool printsPlain = success || request.entry->kind == CommandKind::Send;
  if (!mSettings.json && printsPlain) mOutput.Write(text);
  if (success) return kStatusOk;
  failure = Fail(kStatusRefused, request.typed, why);
  return kStatusRefused;
}

Failure RequestRunner::NoReply(const CommandRequest& request) const {
  Failure failure;
  if (!Preflight::CheckService(mSettings.servicePath, failure)) return failure;
  return Fail(kStatusUnreachable, request.typed, "no reply within " + std::to_string(mSettings.timeoutMs) + " ms");
}

}  // namespace zel::ctl
