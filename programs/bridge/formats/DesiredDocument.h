#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "programs/bridge/formats/BadDocument.h"

namespace tavix::bridge {

// What a group is to hold: a value, or none of the user's, so that its default shows, if there is one.
using DesiredKeys = std::map<std::string, std::optional<std::string>>;

// What the centre wants of a device: a state, not a change. A plain value.
struct DesiredDocument {
  std::string epoch;
  std::uint64_t version = 0;  // of that epoch
  std::map<std::string, DesiredKeys> groups;
};

// Throws BadDocument.
DesiredDocument ParseDesired(const std::string& bytes, size_t maxBytes);

// The version of each document that the centre has, by name. Throws BadDocument.
std::map<std::string, std::uint64_t> ParseDesiredIndex(const std::string& bytes, size_t maxBytes);

// As a centre writes it.
std::string ComposeDesired(const DesiredDocument& document);

}  // namespace tavix::bridge
