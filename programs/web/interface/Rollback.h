#pragma once

#include "programs/web/interface/Call.h"

// The way back to earlier user settings, and the copies that the daemon keeps of them (docs/history.md).
namespace tavix::web {

Response Rollback(Call& call);
Response ListCheckpoints(Call& call);
Response MakeCheckpoint(Call& call);
Response ForgetCheckpoint(Call& call);

}  // namespace tavix::web
