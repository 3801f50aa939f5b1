#pragma once

namespace tavix::web {

// The interface as OpenAPI 3.1 describes it.
const char* GetDescription();

}  // namespace tavix::web
