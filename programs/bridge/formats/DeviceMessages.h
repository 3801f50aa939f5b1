#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "programs/bridge/core/Keys.h"
#include "programs/bridge/formats/BadDocument.h"

// What the bridge of a device publishes, one writer for each.
namespace tavix::bridge {

// What stands at the broker of a group. A plain value.
struct ReportedGroup {
  std::string epoch;
  std::uint64_t version = 0;
  bool isGone = false;
};

// masked: keys whose values stay at home. No keys: the group is gone.
std::string ComposeReported(const std::string& epoch, std::uint64_t version, const Keys& keys,
                            const std::set<std::string>& masked);

// Throws BadDocument.
ReportedGroup ParseReported(const std::string& bytes, size_t maxBytes);

// What became of a document, the worst last.
enum class ResultState { kApplied, kOverridden, kUnsupported, kRefused };

// A plain value.
struct Result {
  std::optional<std::uint64_t> version;  // nothing: none could be read
  ResultState state = ResultState::kApplied;
  std::string reason;                       // of the document as a whole; may be empty
  std::map<std::string, std::string> keys;  // a reason for each "[group]key" that is not as the document has it
};

const char* NameOf(ResultState state);

std::string ComposeResult(const Result& result);

// hash: over all reported versions.
std::string ComposeIndex(const std::string& epoch, std::uint64_t hash);

// Online, with figures, or the last will.
std::string ComposeStatus(const std::string& version, const std::map<std::string, unsigned long long>& figures,
                          const std::string& state);
std::string ComposeOffline();

}  // namespace tavix::bridge
