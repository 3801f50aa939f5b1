#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>

#include "programs/bridge/core/GroupDifference.h"
#include "programs/bridge/core/Keys.h"
#include "programs/bridge/engines/Engine.h"

namespace tavix::bridge {

// How far a mirror is. A plain value.
struct MirrorState {
  size_t groups = 0;            // that are mirrored
  size_t waiting = 0;           // groups that are to be sent or applied
  size_t held = 0;              // groups whose losses a person has to accept
  size_t undecided = 0;         // groups of which a person has to decide who is right first
  size_t left = 0;              // groups, or documents, that can't be taken as they are
  bool hasStateFailed = false;  // nothing is mirrored, as the state can't be written
  bool isInSync = false;
};

// Keeps the device's store and what stands behind an engine alike. It has no thread, no clock, no file and no socket of
// its own: what happened is reported to it, and Run does what follows from that.
//
// Threads: one.
// Errors:  LocalLost leaves Run, which is called again once there is another connection; nothing is lost by that. A
//          state that can't be written is reported by GetState, and tried again by Run.
class Mirror {
 public:
  virtual ~Mirror() = default;

  Mirror() = default;
  Mirror(const Mirror&) = delete;
  Mirror& operator=(const Mirror&) = delete;

  // What a connect is to be made with.
  virtual ConnectOptions GetConnectOptions() const = 0;

  virtual void OnEvent(const EngineEvent& event, Milliseconds now) = 0;

  // There is a connection to the daemon that is subscribed: everything is read again. And there is none any more.
  virtual void OnLocalReady() = 0;
  virtual void OnLocalLost() = 0;

  // A notice came that names these groups.
  virtual void OnLocalChanged(const std::set<std::string>& groups) = 0;

  virtual void Run(Milliseconds now) = 0;

  // When Run has something to do although nothing happens; nothing: never.
  virtual std::optional<Milliseconds> GetNext(Milliseconds now) const = 0;

  // A person accepts the losses that are held, decides who is right first, or wants everything compared again.
  virtual void AcceptLosses() = 0;
  virtual void Decide(Side side) = 0;
  virtual void CompareAgain() = 0;

  virtual MirrorState GetState() const = 0;

  // Gives the groups of which both ends hold something else, in ascending order, until there is no room for more.
  // Values of masked keys are not among them. LocalLost leaves this, too.
  virtual void FindDifferences(const TakeDifference& take) = 0;
};

}  // namespace tavix::bridge
