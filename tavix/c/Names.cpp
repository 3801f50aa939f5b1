#include "tavix/c/Names.h"

#include <chrono>

#include "tavix/c/CallResult.h"

namespace tavix::c {

namespace {

constexpr std::chrono::milliseconds kForever = std::chrono::hours(24 * 10);  // about what poll(2) takes at a time

}  // namespace

std::set<std::string> CopyNames(const NameList& list) {
  std::set<std::string> names;
  for (size_t i = 0; i < list.count; ++i) {
    const char* const name = list.names[i];
    if (!name) throw CallFailure(TAVIX_USAGE, "name " + std::to_string(i) + " is null");
    names.insert(list.sizes ? std::string(name, list.sizes[i]) : std::string(name));
  }
  return names;
}

settings::client::ProtocolOptions MakeOptions(std::string_view address, int32_t timeoutMs) {
  if (timeoutMs == 0 || timeoutMs < TAVIX_FOREVER)
    throw CallFailure(TAVIX_USAGE, "the time-out " + std::to_string(timeoutMs) + " is neither 1 ms nor more");
  settings::client::ProtocolOptions options;
  options.address = address;
  options.timeouts.silence = kForever;
  if (timeoutMs != TAVIX_FOREVER) {
    options.timeouts.silence = std::chrono::milliseconds(timeoutMs);
    options.timeouts.call = options.timeouts.silence;
  }
  return options;
}

void RequireFlags(int32_t flags, int32_t known) {
  if ((flags & ~known) != 0) throw CallFailure(TAVIX_USAGE, "unknown flags " + std::to_string(flags & ~known));
}

}  // namespace tavix::c
