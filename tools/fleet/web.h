// kendrivex-fleet web: the fleet's page and its HTTP API, served to browsers
// over the one MQTT connection the command keeps. Its thread runs the link
// (kept across broker restarts, with the MQTT layer's back-off), the box
// directory fed by the statuses, services and events of every box, and the
// runs that POST /api/run asks for (the run engine of kendrivex-fleet run);
// every 100 ms it publishes what changed to the hub, every second a tick,
// and at once a change of the broker link (stream.h). The HTTP server
// (http.h) serves from the hub on threads of its own. It ends with status 0
// on SIGINT, SIGTERM or SIGHUP. Also the rows and events as the stream
// sends them, for their tests. Main thread only.
#pragma once

#include <time.h>

#include <string>

#include "tools/fleet/directory.h"
#include "tools/fleet/messages.h"
#include "tools/service_client/output.h"

namespace zel::fleet {

struct Invocation;

// Serves until a stop signal; the exit status (4 when it cannot listen).
int ServeWeb(const Invocation& invocation, zel::service_client::Output& output);

// The limits on what a box sends, as the page shows it: a longer ID is left
// out, an event with a longer time is skipped, and an event's text is cut
// to at most kMaxEventArgs fields of at most kMaxEventText bytes in all
// (the cut marked with "…").
constexpr size_t kMaxWebBoxId = 256;
constexpr size_t kMaxEventTime = 64;
constexpr size_t kMaxEventArgs = 32;
constexpr size_t kMaxEventText = 1024;

// A wall-clock time as the stream gives it: "2026-11-25T14:06:00.568Z".
std::string IsoTime(const timespec& when);
// EVENT: {"box":ID,"time":...,"id":7,"args":[...]}, its text cut to the
// limits above.
std::string EventJson(const Event& event);
// ROW: {"box":ID,"status":"online"|"offline","service":"up"|"down"|null,
// "event":EVENT|null,"changed":TIME|null}; `event` is the EVENT text of its
// last event, empty for none.
std::string RowJson(const std::string& id, const BoxDirectory::Box& box, const std::string& event);

}  // namespace zel::fleet
