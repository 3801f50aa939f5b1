#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "programs/web/interface/Conditions.h"
#include "programs/web/interface/Trials.h"
#include "tavix/settings/Amendment.h"

namespace tavix::web {

// A change of one group that depends on what the group holds: it is read, the change is made of that, and what was read
// is the condition under which the daemon makes it. When somebody was faster, it is read anew, up to 16 times. A group
// that is replaced also loses keys that somebody adds behind the reading, which no condition covers: so the daemon puts
// that on trial, and shows what went. What was not read is put back, and all begins anew. Only a daemon without trials
// lets such a key go.
//
// Threads: one, the worker's.
// Errors:  Refusal: 412 when the request's own conditions do not hold, 409 when the daemon refuses the change, others
//          are always faster, or the group holds behind the change what it held before.
class GroupChange {
 public:
  using Keys = std::optional<core::IniFile::KeyMap>;

  // What the group is to hold, of what it holds; nothing: it goes.
  using Make = std::function<Keys(const Keys& before)>;

  // All outlive this. trial: that the change is to be on; nothing: it lasts.
  GroupChange(Call& call, const std::string& group, const Conditions& conditions,
              std::optional<Trial> trial = std::nullopt)
      : _call(call), _group(group), _conditions(conditions), _trial(std::move(trial)) {}

  void Run(const Make& make);

  // What the group held before the change, and what was read behind it.
  const Keys& GetBefore() const { return _before; }
  const Keys& GetAfter() const { return _after; }

  // The trial that the change is on.
  const std::optional<Trial>& GetTrial() const { return _trial; }

 private:
  settings::Amendment MakeAmendment(const Keys& wanted) const;
  bool TryChange(const settings::Amendment& amendment);
  bool TookMore(const programs::TrialState& state) const;
  bool TryAmend(const settings::Amendment& amendment);
  void Finish(const Keys& wanted);
  void RequireApplied(const Keys& wanted) const;

  Call& _call;
  const std::string& _group;
  const Conditions& _conditions;
  std::optional<Trial> _trial;
  Keys _before;
  Keys _after;
};

// Sets what is to be kept or, volatile, what is not. Throws Refusal when the daemon does not do it. It always shows,
// also over what a restricted file has: what differs behind it is somebody else's later change.
void Merge(Call& call, const core::IniFile& settings, bool isVolatile);

// The daemon's reason for a change that it did not make, as a refusal: 403 for a restricted group, else 409.
Refusal RefusalOf(const std::string& reason);

}  // namespace tavix::web
