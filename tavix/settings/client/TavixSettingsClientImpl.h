#pragma once

#include <sys/types.h>

#include <optional>
#include <set>
#include <string>

#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/client/IConnectionObserver.h"
#include "tavix/settings/client/KeptByServer.h"
#include "tavix/settings/common/CallbackDispatcher.h"

namespace tavix::core {
class IniFile;
class Logger;
}  // namespace tavix::core

namespace tavix::settings {
struct Amendment;
}

namespace tavix::settings::client {

// What a settings client can do, whichever way it reaches the store. TavixSettingsClient.h states each operation.
//
// Threads: any.
class TavixSettingsClientImpl {
 public:
  virtual ~TavixSettingsClientImpl() = default;

  TavixSettingsClientImpl(const TavixSettingsClientImpl&) = delete;
  TavixSettingsClientImpl& operator=(const TavixSettingsClientImpl&) = delete;

  // False when a reply came that can't be read; "out" is then as it was.
  virtual bool GetSettings(const std::set<std::string>& groups, core::IniFile& out) const = 0;

  // Sets "value" to one value, or to none when it is not set. False as above, with "value" as it was.
  virtual bool FindValue(const std::string& group, const std::string& key, std::optional<std::string>& value) const;

  virtual void MergeSettings(const core::IniFile& settings, unsigned int flags) = 0;
  virtual bool TestAndMerge(const core::IniFile& test, const core::IniFile& merge) = 0;
  virtual bool Amend(const Amendment& amendment) = 0;
  virtual void Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) = 0;
  virtual void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings) = 0;
  virtual void RestoreToDefaults(const std::set<std::string>& groups) = 0;

  // Ends all subscriptions of "cb", wherever they are kept.
  virtual void Detach(IChangeCallback* cb);

  // Observers are told of connections. Only clients that connect by themselves have any to tell of.
  virtual void AddConnectionObserver(IConnectionObserver* observer);
  virtual void RemoveConnectionObserver(IConnectionObserver* observer);

  // Whether the store saves what is changed. Asks the server.
  virtual Keeping AskForKeeping() const = 0;

  // Whether this process was forked since a client with threads was made: they are in the parent alone. Then nothing of
  // the client is used, and it is not destroyed.
  bool IsLeftToParent() const;

  // The subscribers of the remote clients; the facade unsubscribes here.
  common::CallbackDispatcher& GetDispatcher() { return _commonDispatcher; }

 protected:
  TavixSettingsClientImpl();

  // Throws that the server does not know a request.
  [[noreturn]] static void ThrowTooOld(const char* call);

  // Called by the constructors of clients with threads.
  void BindToProcess();

  core::Logger* const _logger;
  common::CallbackDispatcher _commonDispatcher;

 private:
  pid_t _process = 0;  // the one that the client works in; 0: any
};

}  // namespace tavix::settings::client
