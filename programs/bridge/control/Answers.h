#pragma once

#include <cstddef>
#include <ctime>
#include <deque>
#include <nlohmann/json.hpp>
#include <string>

#include "programs/bridge/core/GroupDifference.h"
#include "programs/bridge/core/Rules.h"
#include "programs/bridge/core/ThreeWayMerge.h"

// What a bridge answers to those who ask it: a document of JSON on one line. Names and values as the command has them
// in JSON.
namespace tavix::bridge {

// The bytes that an answer with a list has at most, roughly.
constexpr size_t kMaxAnswerBytes = size_t{1024} * 1024;
constexpr size_t kMaxGroups = 1000;  // that one answer lists

// How a bridge is. A plain value.
struct BridgeStatus {
  std::string name;
  std::string engine;
  bool isInSync = false;
  std::string link;       // connected, connecting or lost
  std::time_t since = 0;  // the link is so
  bool isDaemonConnected = false;
  unsigned long long lag = 0;  // seconds for which something has been waiting without a pause
  size_t waiting = 0;
  size_t conflicts = 0;  // that are remembered
  unsigned long long overridden = 0;
  unsigned long long refused = 0;
  size_t held = 0;
  size_t undecided = 0;
  size_t leftOut = 0;
  std::string lastError;
  std::time_t lastErrorTime = 0;
};

// A conflict, and when it was found. A plain value.
struct TimedConflict {
  Conflict conflict;
  std::time_t time = 0;
};

std::string ComposeStatusAnswer(const BridgeStatus& status);

// The newest ones that there is room for, in the order in which they were found.
std::string ComposeConflictsAnswer(const std::deque<TimedConflict>& conflicts, const Rules& rules);

// groups: that it concerned.
std::string ComposeDone(size_t groups);

std::string ComposeError(const std::string& text);

// An answer that lists groups that differ, as many as there is room for.
//
// Threads: one.
class DifferencesAnswer {
 public:
  // As TakeDifference. The first group that there is no room for ends the list.
  bool Add(const GroupDifference& difference);

  std::string Compose() const;

 private:
  nlohmann::json _groups = nlohmann::json::array();
  size_t _bytes = 0;
  bool _hasMore = false;
};

}  // namespace tavix::bridge
