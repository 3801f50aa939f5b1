#pragma once

#include <functional>
#include <string>
#include <vector>

#include "programs/server/persistence/UserSettingsPersister.h"
#include "programs/server/trials/SharedTrials.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/LayerView.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

// Ends the trials of a store: confirms them, and reverts them by an amendment each, as one step with the end of the
// trial.
//
// Threads: any.
// Locks:   its own mutex, outside all others: held while one trial is reverted, subscribers included.
// Errors:  Confirm, Revert: settings::server::RefusedChange for what the client may not do, std::bad_alloc. Revert:
//          osa::Exception when others write to the trial's settings all the time; the trial is pending still.
class StoreTrials {
 public:
  using Client = TrialBook::Client;
  using Ticket = settings::server::ChangeTicket;

  // All outlive the object.
  StoreTrials(settings::server::SettingsManager& manager, UserSettingsPersister& persister, SharedTrials& trials)
      : _manager(manager), _persister(persister), _trials(trials) {}

  StoreTrials(const StoreTrials&) = delete;
  StoreTrials& operator=(const StoreTrials&) = delete;

  // Returns the ticket that a reply has to wait for: it is durable once the trial is confirmed on the disk, whatever
  // the durability of other changes is, or the disk has failed since. Refused while the disk takes no changes.
  Ticket Confirm(const std::string& name, const Client& client);

  // origin: the client's request.
  Ticket Revert(const std::string& name, const settings::server::ChangeOrigin& origin) TAVIX_EXCLUDES(_mutex);

  // Revert what nobody confirmed in time, or all; log what was done, and what could not be, which is tried again soon.
  // False: something could not.
  bool RevertDue() noexcept;
  bool RevertAll() noexcept;

  bool HasPending() { return !_trials.FindPending().empty(); }

  // Adds a group for each trial that is known; name: of one, empty for all. Throws RefusedChange when there is none of
  // that name.
  void Describe(const std::string& name, core::IniFile& answer);

  // Readable when RevertDue has something to do.
  int GetDescriptor() const { return _trials.GetDescriptor(); }
  void AcknowledgeTimer() { _trials.AcknowledgeTimer(); }

 private:
  using Reader = std::function<void(const settings::server::LayerView& userSettings)>;

  Ticket RevertOne(const std::string& name, const settings::server::ChangeOrigin& origin) TAVIX_EXCLUDES(_mutex);
  using FindNames = std::vector<std::string> (SharedTrials::*)();
  bool RevertEach(FindNames findNames, const char* reason) noexcept;
  bool TryToRevert(const std::string& name, const char* reason);
  settings::server::StoreAmendment PlanRevert(const std::string& name);
  Ticket End(const std::string& name);
  Ticket Amend(const std::string& name, const settings::server::StoreAmendment& revert,
               const settings::server::ChangeOrigin& origin);
  bool IsPending(const std::string& name);
  void DescribeTrial(const std::string& name, core::IniFile& answer);
  void DescribeSettings(const std::string& name, core::IniFile::KeyMap& keys);
  bool ReadPart(const std::string& name, OldSettings& part, const Reader& read);

  settings::server::SettingsManager& _manager;
  UserSettingsPersister& _persister;
  SharedTrials& _trials;
  osa::PlainMutex _mutex;  // one revert at a time: the plan of another would count as outdated
};

}  // namespace tavix::daemon
