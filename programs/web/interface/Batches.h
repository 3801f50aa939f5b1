#pragma once

#include "programs/web/interface/Call.h"

// Requests that are about many groups.
namespace tavix::web {

Response Apply(Call& call);
Response Reset(Call& call);
Response Diff(Call& call);
Response ImportBackup(Call& call);

}  // namespace tavix::web
