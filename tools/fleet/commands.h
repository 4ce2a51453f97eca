// The commands of kendrivex-fleet as the operator sees them. Each connects
// to the broker (within --timeout), does its work through the link, writes
// its output on standard output and its failures on standard error, and
// gives the exit status: ls lists the boxes once the broker has sent every
// retained status; run prints each box's result as it comes, keeps a
// progress line in place while standard error is a terminal, and ends with a
// summary; watch prints the boxes' events until a stop signal or --count,
// riding out a broker that goes away; forget clears the retained status and
// service of boxes that are gone, refusing online ones. Messages from boxes
// that fail their checks are counted and reported once, at the end. Also
// the texts of the lines, for their tests. Main thread only.
#pragma once

#include <cstddef>
#include <string>

#include "tools/fleet/messages.h"
#include "tools/fleet/options.h"
#include "tools/service_client/output.h"

namespace zel::fleet {

// Carries out the command of `invocation` (ls, run, watch or forget); the
// exit status.
int Perform(const Invocation& invocation, zel::service_client::Output& output);

// The run's summary: "3 boxes expected: 2 answered with success, 1
// answered otherwise, 0 did not answer".
std::string SummaryText(size_t expected, size_t success, size_t otherwise, size_t none);
// The run's progress: "2 of 3 boxes answered".
std::string ProgressText(size_t answered, size_t expected);
// watch's line of an event: TIME<TAB>ID<TAB>N<TAB>TEXT... and a newline,
// every field escaped.
std::string EventLine(const Event& event);

}  // namespace zel::fleet
