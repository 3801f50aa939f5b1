#pragma once

#include <cstddef>
#include <cstdint>

#include "programs/server/history/RollbackPlan.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::daemon {

// User settings of some time ago, which are compared with those of now part by part.
//
// In order: Begin, or BeginLocked, before each comparison; then ComparePart until it returns false. What changes
// between the two counts only for parts behind it: then the comparison is to be made anew.
//
// Threads: one at a time.
// Errors:  osa::Exception with a sentence for the client, std::bad_alloc.
class EarlierSettings {
 public:
  static constexpr size_t kMaxAtOnce = 1000;  // settings of a part, and those of the group in which it ends

  virtual ~EarlierSettings() = default;

  // Returns the revision of the last change of the user settings that the comparison knows of. Reads files, and is
  // called without a lock of the store.
  virtual uint64_t Begin() = 0;

  // The same with the store locked, so that all changes are known. False: that takes a file.
  [[nodiscard]] virtual bool BeginLocked() = 0;

  // Adds what differs. userSettings: those of now. False: nothing is left to compare.
  virtual bool ComparePart(const settings::server::LayerView& userSettings, RollbackPlan& plan) = 0;
};

}  // namespace tavix::daemon
