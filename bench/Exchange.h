#pragma once

#include <string>

#include "bench/DescriptorIo.h"

namespace tavix::bench {

// A request and the reply that it must have.
struct Exchange {
  std::string request;
  std::string reply;
};

// Keys of each group that daemons are measured with.
constexpr int kKeysOfGroup = 5;

// "get delimited" of one group of the sample settings, or of a group that does not exist.
Exchange GetExchange(int group);
Exchange GetNothingExchange();

// A command that sets the group's first key to the value of "version", and a get of the group in the same write: the
// reply proves that the command is done. All versions are equally long.
Exchange ChangeExchange(const std::string& command, int group, int version);

// A test-and-merge that sets the first key on condition of the second.
Exchange TestAndMergeExchange(int group, int version);

// The bytes of a change notice for the group, and the merge that causes it.
Exchange NoticeExchange(int group, int version);

// Microseconds from the request's first byte until the reply is there. Throws osa::Exception when it is another one.
double TimedExchange(const osa::Descriptor& connection, const Exchange& exchange);

}  // namespace tavix::bench
