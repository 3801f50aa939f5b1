#pragma once

#include <string>
#include <string_view>

#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Limits.h"

namespace tavix::daemon {

// Why a connection was cut, as the log has it before a figure. From any thread.
const char* TextOf(CutReason reason);

// What was expected and what was found, for the end of that line; empty for a reason that is not what the client sent.
// sent: begins with the request. Of this the first line is shown, which is its command: no value of a setting.
std::string DescribeSent(CutReason reason, std::string_view sent, const Limits& limits);

}  // namespace tavix::daemon
