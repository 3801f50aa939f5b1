#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "tavix/settings/client/ProtocolOptions.h"

// What several calls of the C interface take.
//
// Threads: any.
// Errors:  CallFailure.
namespace tavix::c {

// A caller's list of names and patterns, borrowed.
struct NameList {
  const char* const* names;
  const size_t* sizes;  // null: C strings
  size_t count;
};

// Throws TAVIX_USAGE when one of them is null.
std::set<std::string> CopyNames(const NameList& list);

// Throws TAVIX_USAGE when the time-out is none.
settings::client::ProtocolOptions MakeOptions(std::string_view address, int32_t timeoutMs);

// Throws TAVIX_USAGE when there are others than the known ones.
void RequireFlags(int32_t flags, int32_t known);

}  // namespace tavix::c
