#pragma once

#include "programs/web/interface/Call.h"

// Requests that write one group. Each is answered when what was written was read back on the same connection.
namespace tavix::web {

Response PatchGroup(Call& call);
Response PutGroup(Call& call);
Response DeleteGroup(Call& call);

}  // namespace tavix::web
