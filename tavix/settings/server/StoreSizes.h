#pragma once

#include <cstddef>

namespace tavix::settings::server {

// How much a store holds: what readers see, and the user layer without its bookkeeping. A plain value.
struct StoreSizes {
  size_t allGroups = 0;
  size_t allKeys = 0;
  size_t userGroups = 0;
  size_t userKeys = 0;
};

}  // namespace tavix::settings::server
