#pragma once

#include <optional>
#include <string>

#include "programs/web/interface/Call.h"

namespace tavix::web {

// What If-Match and If-None-Match ask of a group before it is written. A plain value.
struct Conditions {
  // Throws Refusal, 400, when both stand there, or If-None-Match is not "*".
  explicit Conditions(const Request& request);

  bool IsAny() const { return ifMatch || mustBeNew; }

  // Throws Refusal, 412, with what the group holds now, when they do not hold. keys: null when there is no such group.
  void Require(const Call& call, const std::string& group, const core::IniFile::KeyMap* keys) const;

  std::optional<std::string> ifMatch;
  bool mustBeNew = false;
};

// A group as an answer shows it: "name", "version" and "values"; the version of a group that is missing is null.
std::string DescribeGroup(const Call& call, const std::string& group, const core::IniFile::KeyMap* keys);

}  // namespace tavix::web
