#pragma once

#include <chrono>

namespace tavix::test {

// How long tests wait for what should come at once. It tells what hangs from what is slow: a machine with many
// processes beside, or a sanitizer, may take seconds for what takes none elsewhere.
constexpr std::chrono::seconds kPatience{200};

}  // namespace tavix::test
