#pragma once

#include "programs/web/interface/Call.h"

// Requests that report, as the command does, and that set log levels.
namespace tavix::web {

Response ShowStatus(Call& call);
Response ShowSubscribers(Call& call);
Response ShowResources(Call& call);
Response ShowLogLevels(Call& call);
Response PatchLogLevels(Call& call);

}  // namespace tavix::web
