#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/SettingLocator.h"
#include "tavix/settings/client/IConnectionObserver.h"

namespace tavix::settings {

namespace client {
class TavixSettingsClientImpl;
}

// A process's way to the settings of its device: reads groups, changes them, and is told of changes.
//
//     TavixSettingsClient settings(TavixSettingsClient::MultiThreaded);
//     std::string name = settings.GetValue("[Network]hostname");
//     settings.SetValue("[Network]hostname", "camera-7");
//
// The environment variable TAVIX_SETTINGS_LOCALFILE, when set, makes every client a Local one whatever mode was asked
// for; unless it is empty, it names a settings file that is loaded over the client's defaults. TAVIX_SETTINGS_SERVER is
// where the settings server is: host[:port] or unix:PATH. Without it that is the address that the hosts database gives
// "tavix-settings-server", or 127.0.0.1; port 7211.
//
// Threads: any thread may call. In MultiThreaded modes callbacks run on the client's own thread "TavixSettings", from
//          which no call that waits for a reply can be made: it throws. In Local mode they run inside the call that
//          made the change, and must not change settings, subscribe or unsubscribe.
// Forks:   a forked process leaves the client to its parent: what it does reaches no connection of the parent's. In
//          modes with threads, 0, 3 and 4, its reads, changes and subscriptions throw, all else does nothing; a
//          SingleThreaded client connects anew; a Local one goes on with a copy. No other thread is to be inside of a
//          call meanwhile.
// Owns:    no callback; each stays valid until it was unsubscribed, in Local mode until the client is gone.
// Errors:  osa::Exception. In remote modes a group name or pattern that holds a line break or is "." is refused before
//          anything is sent. MultiThreaded: "Lock Timeout..." when there is no connection within 10 s, "NAME failed to
//          communicate with tavix-settings-server" when it was lost before the reply, or before this call with nobody
//          waiting: the first call after a lost connection fails. SingleThreaded: "Failed to connect to
//          tavix-settings-server" after five tries. Where no connection was made, the log has the address, the reason
//          and for how long it was tried, once for each reason, at warning; the first text goes on with them. Writes
//          have no reply: that they return says they were sent, and a request whose reply was lost may have been
//          carried out.
// Methods: many, as each operation has forms for one group and for several; all are a few lines over the mode's client.
class TAVIX_EXPORT TavixSettingsClient {
 public:
  // The numbers are part of the interface.
  enum OperationMode : int {
    MultiThreaded = 0,                  // over TCP, with a thread that receives; the only remote mode with callbacks
    SingleThreaded = 1,                 // over TCP, on the caller's thread; Subscribe throws
    Local = 2,                          // a store inside the process, never saved
    SingleThreadedLocalConnection = 3,  // as 1, over a pipe to a server thread of its own with an empty store
    MultiThreadedLocalConnection = 4,   // as 0, over such a pipe
  };

  // Merge flag: the change is not saved; it lasts until the server restarts.
  static constexpr unsigned int kNoPersist = 1;

  // What became of a change.
  enum class Outcome {
    kDone,             // the store holds it
    kNotKept,          // likewise, until the server ends: it saves nothing, or its disk fails
    kRefused,          // nothing was changed: a group is restricted, or the store has no room
    kConditionFailed,  // nothing was changed: the store did not hold what was expected
    kMaybeKept,        // the store holds it; the server could not be asked whether it saves it
  };

  // defaults: what a Local client starts from; copied. Ignored in the other modes: the server has the defaults.
  // Throws "Invalid or unsupported operation mode".
  explicit TavixSettingsClient(OperationMode mode);
  TavixSettingsClient(OperationMode mode, const core::IniFile& defaults);

  // Returns within 3 s, and once a callback or the system's name resolution that is under way has returned. Not from a
  // callback.
  ~TavixSettingsClient();

  TavixSettingsClient(const TavixSettingsClient&) = delete;
  TavixSettingsClient& operator=(const TavixSettingsClient&) = delete;

  // Add the groups that a set of names and '*' patterns, or one of them, means to "out", which is not cleared. Names
  // that exist nowhere are skipped. False, with "out" as it was, when a MultiThreaded client got a reply that is no
  // settings text; the log says what stood there.
  bool GetSettings(const std::set<std::string>& groups, core::IniFile& out) const;
  bool GetSettings(const std::string& group, core::IniFile& out) const;

  // Reads the groups that "settings" holds into it again.
  bool RefreshSettings(core::IniFile& settings) const;

  // One value; empty when there is none. The text form is "[group]key".
  std::string GetValue(const SettingLocator& locator) const;
  std::string GetValue(const std::string& locator) const;

  // The same, but tells a value that is not set from an empty one. Throws where GetSettings returns false.
  std::optional<std::string> FindValue(const SettingLocator& locator) const;
  std::optional<std::string> FindValue(const std::string& locator) const;

  // Set every value of "settings" and leave the others alone. flags: 0, or kNoPersist.
  void MergeSettings(const core::IniFile& settings);
  void MergeSettings(const core::IniFile& settings, unsigned int flags);

  void SetValue(const SettingLocator& locator, const std::string& value);
  void SetValue(const std::string& locator, const std::string& value);

  // Merges "merge" if the store holds every value of "test", as one step. Returns whether it did.
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& merge);

  // Sets, unsets and replaces as one step, if values are what is expected and keys are not set. Returns whether it did.
  // Throws when the server is older than this request: nothing of it was sent then. Each connection is asked once.
  // SingleThreaded: a request whose answer was lost is made again, so that its conditions may fail by itself.
  bool Amend(const Amendment& amendment);

  // Merges "settings" as one step, altogether or not at all, and returns what became of it. It waits for the store's
  // answer, and a server that keeps changes gives that once the disk has them. The second form is made only if the
  // store holds every value of "expected".
  //
  // MergeSettings, in contrast, leaves out in silence what is refused. Stores in the process save nothing: kNotKept.
  // Over TCP the server is asked over a connection of its own whether it keeps changes: kDone, too, when it is older
  // than that question, and kMaybeKept when it does not answer. The record of deleted groups counts as restricted.
  // SingleThreaded: a request whose answer was lost is made again, so that kConditionFailed may mean that the first one
  // was carried out. Throws where GetSettings returns false for the groups of a condition that failed.
  [[nodiscard]] Outcome Apply(const core::IniFile& settings);
  [[nodiscard]] Outcome Apply(const core::IniFile& expected, const core::IniFile& settings);

  // The same for one value. Returns whether the store holds it now.
  [[nodiscard]] bool TrySetValue(const SettingLocator& locator, const std::string& value);
  [[nodiscard]] bool TrySetValue(const std::string& locator, const std::string& value);

  // Replace whole groups: what "groups" (names and patterns) means goes, then "settings" is merged. Defaults that go do
  // not come back at the next start. The last form replaces exactly the groups that "settings" holds.
  void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings);
  void OverwriteSettings(const std::string& group, const core::IniFile& settings);
  void OverwriteSettings(const core::IniFile& settings);

  // Overwrite by nothing.
  void EraseGroups(const std::set<std::string>& groups);
  void EraseGroups(const std::string& group);

  // Bring the defaults of groups (names and patterns) back.
  void RestoreToDefaults(const std::set<std::string>& groups);
  void RestoreToDefaults(const std::string& group);

  // Have "cb" called when one of the groups (names and patterns) changes. Subscriptions of one callback add up.
  void Subscribe(IChangeCallback* cb, const std::set<std::string>& groups);
  void Subscribe(IChangeCallback* cb, const std::string& group);

  // Ends all subscriptions of "cb"; returns once no call of it is under way. In Local mode it does nothing: callbacks
  // stay subscribed, on purpose, and must outlive the client or ignore late calls.
  void UnSubscribe(IChangeCallback* cb);

  // The same in every mode, Local included.
  void Detach(IChangeCallback* cb);

  // Have "observer" told of every connection that a MultiThreaded client makes from now on; the other modes have none
  // to tell of. Removing returns once no call of it is under way. Not from an observer.
  void AddConnectionObserver(IConnectionObserver* observer);
  void RemoveConnectionObserver(IConnectionObserver* observer);

 private:
  friend class Subscription;  // which does nothing where the client was left to the parent

  client::TavixSettingsClientImpl& Get(const char* call) const;
  bool IsLeftToParent() const;

  std::unique_ptr<client::TavixSettingsClientImpl> _pImpl;
};

}  // namespace tavix::settings
