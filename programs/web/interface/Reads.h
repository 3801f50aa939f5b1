#pragma once

#include "programs/web/interface/Call.h"

// Requests that read groups.
namespace tavix::web {

Response ListGroups(Call& call);
Response ListTree(Call& call);
Response ShowGroup(Call& call);
Response Search(Call& call);
Response Export(Call& call);

}  // namespace tavix::web
