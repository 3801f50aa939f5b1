#include "programs/common/client/Session.h"

#include "programs/common/client/Failure.h"

namespace tavix::programs {

using core::IniFile;

namespace {

void HandOut(IniFile settings, const Session::TakeGroup& take) {
  IniFile::GroupMap& groups = settings.GetMutableGroups();
  while (!groups.empty()) {
    IniFile part;
    part.GetMutableGroups().insert(groups.extract(groups.begin()));
    take(part);
  }
}

}  // namespace

Session::Answer Session::Ask(const std::string&, Effect) {
  throw Failure(kExitNotApplied, GetAddress() + " has no such request");
}

void Session::SetTrial(unsigned, const std::string&) {
  throw Failure(kExitNotApplied, GetAddress() + " has no trials");
}

void Session::GetEach(const Groups& groups, const TakeGroup& take) {
  HandOut(Get(groups), take);
}

void Session::GetEachName(const Groups& groups, const TakeName& take) {
  GetEach(groups, [&](const IniFile& part) { take(part.begin()->first); });
}

void Session::GetEachOfUser(const TakeGroup& take) {
  HandOut(GetUserSettings(), take);
}

}  // namespace tavix::programs
