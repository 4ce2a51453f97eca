// The MQTT ends of kendrivex-bridge's benchmarks (bench/bridge/bridge_bench.sh
// runs them), one libmosquitto client (MQTT 5, QoS 1) in one of four roles:
//   request   sends --count requests to --topic one after another, each with
//             a response topic and correlation data of its own, and waits for
//             --replies replies to each; prints the times a request took.
//   respond   answers every request on --topic from memory, on its response
//             topic with its correlation data, until SIGTERM or SIGINT.
//   subscribe takes --count messages from --topic (a filter) and prints the
//             rate from the first to the last; gives up after --idle seconds
//             without one.
//   publish   publishes --count messages of --payload on --topic, at most
//             256 unacknowledged at a time (as the bridge sends its events).
// Every role takes --port (the broker on 127.0.0.1) and --nodelay 0|1 (TCP
// Nagle's algorithm off when 1, the default); respond and subscribe write
// the file --ready once they are subscribed. Results are one line of
// name=value pairs on standard output.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench/bridge/bench_client.h"

namespace {

using Clock = std::chrono::steady_clock;
using zel::bench::BenchClient;
using zel::bench::BenchMessage;

const char kHost[] = "127.0.0.1";
// The reply the responder sends, as long as the bridge's reply to a ping.
const char kFloorReply[] = R"({"command":"ping","code":1,"args":["PONG"],"box":"floor"})";
// Events the publisher keeps unacknowledged at most, as the bridge does.
constexpr uint64_t kWindow = 256;
// How long one request may wait for its replies.
constexpr std::chrono::seconds kReplyTime(30);

std::atomic<bool> gStop{false};

extern "C" void OnStopSignal(int) { gStop = true; }

[[noreturn]] void Fail(const std::string& what) {
  // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
  std::fprintf(stderr, "mqtt_bench: %s\n", what.c_str());
  std::exit(2);  // NOLINT(concurrency-mt-unsafe): the program has one thread
}

// --name value pairs.
class Options {
 public:
  Options(int argc, char** argv) {
    for (int i = 2; i + 1 < argc; i += 2) {
      const std::string name = argv[i];
      if (name.rfind("--", 0) != 0) Fail("not an option: " + name);
      mValues[name.substr(2)] = argv[i + 1];
    }
    if (argc % 2 != 0) Fail("an option without a value");
  }

  std::string Text(const std::string& name, const std::string& fallback = "") const {
    const auto found = mValues.find(name);
    if (found != mValues.end()) return found->second;
    if (fallback.empty()) Fail("--" + name + " is needed");
    return fallback;
  }

  uint64_t Number(const std::string& name, const std::string& fallback = "") const {
    const std::string text = Text(name, fallback);
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0') Fail("--" + name + ": not a number: " + text);
    return value;
  }

 private:
  std::map<std::string, std::string> mValues;
};

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

void Connect(BenchClient& client, const Options& options) {
  if (!client.Connect(kHost, static_cast<int>(options.Number("port")))) Fail("no connection to the broker");
}

void Subscribe(BenchClient& client, const Options& options) {
  if (!client.Subscribe(options.Text("topic"))) Fail("the subscription failed");
  const std::string ready = options.Text("ready", "-");
  if (ready != "-") std::ofstream(ready) << "ready\n";
}

double Percentile(const std::vector<double>& sorted, double fraction) {
  const auto index = static_cast<size_t>(fraction * static_cast<double>(sorted.size() - 1));
  return sorted[index];
}

int Request(const Options& options) {
  const uint64_t count = options.Number("count");
  const uint64_t warmup = options.Number("warmup", "100");
  const uint64_t replies = options.Number("replies", "1");
  const std::string topic = options.Text("topic");
  const std::string payload = options.Text("payload", "ping");
  const std::string responseTopic = "bench/reply/" + std::to_string(::getpid());
  BenchClient client(options.Number("nodelay", "1") != 0);
  std::string correlation;
  uint64_t got = 0;
  client.OnMessage([&](const BenchMessage& message) {
    if (message.correlation == correlation) ++got;
  });
  Connect(client, options);
  if (!client.Subscribe(responseTopic)) Fail("the subscription to the response topic failed");

  std::vector<double> micros;
  micros.reserve(count);
  Clock::duration total{};
  for (uint64_t i = 0; i < warmup + count; ++i) {
    correlation = std::to_string(i);
    got = 0;
    const Clock::time_point start = Clock::now();
    if (!client.Publish(topic, payload, responseTopic, correlation)) Fail("cannot publish a request");
    while (got < replies) {
      if (!client.Loop(1000)) Fail("the connection was lost");
      if (Clock::now() - start > kReplyTime) {
        Fail("request " + correlation + ": " + std::to_string(got) + " of " + std::to_string(replies) + " replies");
      }
    }
    const Clock::duration took = Clock::now() - start;
    if (i < warmup) continue;
    total += took;
    micros.push_back(Seconds(took) * 1e6);
  }
  std::sort(micros.begin(), micros.end());
  std::printf("requests=%llu replies=%llu total_s=%.3f mean_us=%.1f median_us=%.1f p90_us=%.1f p99_us=%.1f\n",
              static_cast<unsigned long long>(count), static_cast<unsigned long long>(replies), Seconds(total),
              Seconds(total) * 1e6 / static_cast<double>(count), Percentile(micros, 0.5), Percentile(micros, 0.9),
              Percentile(micros, 0.99));
  return 0;
}

int Respond(const Options& options) {
  BenchClient client(options.Number("nodelay", "1") != 0);
  // Replies wait for the end of the callback: published from inside it,
  // libmosquitto would only send them on the next turn of the loop.
  std::vector<BenchMessage> requests;
  client.OnMessage([&](const BenchMessage& message) {
    if (message.responseTopic) requests.push_back(message);
  });
  Connect(client, options);
  Subscribe(client, options);
  uint64_t answered = 0;
  while (!gStop) {
    if (!client.Loop(100)) Fail("the connection was lost");
    for (const BenchMessage& request : requests) {
      if (client.Publish(*request.responseTopic, kFloorReply, "", request.correlation.value_or(""))) ++answered;
    }
    requests.clear();
  }
  std::printf("answered=%llu\n", static_cast<unsigned long long>(answered));
  return 0;
}

int Take(const Options& options) {
  const uint64_t count = options.Number("count");
  const std::chrono::seconds idle(options.Number("idle", "10"));
  BenchClient client(options.Number("nodelay", "1") != 0);
  uint64_t received = 0;
  Clock::time_point first;
  Clock::time_point last = Clock::now();
  client.OnMessage([&](const BenchMessage&) {
    last = Clock::now();
    if (received++ == 0) first = last;
  });
  Connect(client, options);
  Subscribe(client, options);
  // The first message may be a while coming: the script starts the sender
  // after this is subscribed.
  const std::chrono::seconds firstIdle = idle * 6;
  while (received < count && !gStop) {
    if (!client.Loop(100)) Fail("the connection was lost");
    if (Clock::now() - last > (received == 0 ? firstIdle : idle)) break;
  }
  const double seconds = received > 1 ? Seconds(last - first) : 0;
  std::printf("received=%llu first_to_last_s=%.3f rate_per_s=%.0f\n", static_cast<unsigned long long>(received),
              seconds, seconds > 0 ? static_cast<double>(received - 1) / seconds : 0.0);
  return received == count ? 0 : 1;
}

int Publish(const Options& options) {
  const uint64_t count = options.Number("count");
  const std::string topic = options.Text("topic");
  const std::string payload = options.Text("payload");
  BenchClient client(options.Number("nodelay", "1") != 0);
  Connect(client, options);
  const Clock::time_point start = Clock::now();
  uint64_t sent = 0;
  while (client.Acknowledged() < count) {
    while (sent < count && sent - client.Acknowledged() < kWindow) {
      if (!client.Publish(topic, payload)) Fail("cannot publish");
      ++sent;
    }
    const bool waiting = sent == count || sent - client.Acknowledged() >= kWindow;
    if (!client.Loop(waiting ? 100 : 0)) Fail("the connection was lost");
  }
  const double seconds = Seconds(Clock::now() - start);
  std::printf("published=%llu seconds=%.3f rate_per_s=%.0f\n", static_cast<unsigned long long>(count), seconds,
              static_cast<double>(count) / seconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) Fail("usage: mqtt_bench request|respond|subscribe|publish --port PORT [options]");
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  const std::string role = argv[1];
  const Options options(argc, argv);
  if (role == "request") return Request(options);
  if (role == "respond") return Respond(options);
  if (role == "subscribe") return Take(options);
  if (role == "publish") return Publish(options);
  Fail("unknown role: " + role);
}
