// Throughput of the line format and the cost of one request/reply exchange
// against an in-process service socket that answers every request at once.
#include <string>
#include <vector>

#include "bench/support/answering_service.h"
#include "benchmark/benchmark.h"
#include "ipc/field_split.h"
#include "ipc/ipc_client.h"
#include "ipc/ipc_message.h"

namespace {

using namespace zel::ipc;

std::string ManyFieldReply() {
  std::string reply = "1";
  for (int i = 0; i < 12; ++i) reply += "\tstation-00:11:22:33:44:" + std::to_string(10 + i);
  return reply;
}

void BM_SplitFields(benchmark::State& state) {
  const std::string line = ManyFieldReply();
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(SplitFields(line, '\t'));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_SplitFields);

void BM_ParseReplyPong(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(ParseReply("1\tPONG"));
}
BENCHMARK(BM_ParseReplyPong);

void BM_ParseReplyTwelveArguments(benchmark::State& state) {
  const std::string line = ManyFieldReply();
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(ParseReply(line));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_ParseReplyTwelveArguments);

void BM_FormatRequestRegistration(benchmark::State& state) {
  const IPCRequest request{RegisterEventPath, {"/tmp/ipc_client-812-0-event"}};
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(FormatRequest(request));
}
BENCHMARK(BM_FormatRequestRegistration);

void BM_JoinFieldsRegistration(benchmark::State& state) {
  const std::vector<std::string> fields{"4", "/tmp/ipc_client-812-0-event"};
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(JoinFields(fields, '\t'));
}
BENCHMARK(BM_JoinFieldsRegistration);

void BM_PingRoundTrip(benchmark::State& state) {
  zel::bench::AnsweringService service;
  IPCClient client;
  if (!client.SetLocalPath(service.path(), service.dir(), nullptr)) {
    state.SkipWithError("set-up failed");
    return;
  }
  for ([[maybe_unused]] auto _ : state) {
    const IPCResult result = client.Send(Ping);
    if (result.code != ResultSuccess) {
      state.SkipWithError("ping failed");
      break;
    }
  }
}
BENCHMARK(BM_PingRoundTrip)->UseRealTime();

}  // namespace
