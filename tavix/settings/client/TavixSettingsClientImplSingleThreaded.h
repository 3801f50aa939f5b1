#pragma once

#include <memory>
#include <optional>

#include "tavix/osa/Mutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/client/TavixSettingsClientImpl.h"

namespace tavix::settings::client {

class RemoteCommand;
class TavixSettingsConnection;

// A remote client without a thread of its own: each call connects if it must, sends its request and reads the reply, on
// the caller's thread.
//
// Threads: any; calls run one after the other.
// Errors:  an exchange that fails is made again, with a new connection, up to five times in all; then osa::Exception
//          "Failed to connect to tavix-settings-server"; the log has the reason. A request whose reply was lost may so
//          reach the server twice. A server that is there but never answers is waited for without limit. Subscribe
//          always throws.
class TavixSettingsClientImplSingleThreaded : public TavixSettingsClientImpl {
 public:
  // connection: taken over. Does not connect.
  explicit TavixSettingsClientImplSingleThreaded(TavixSettingsConnection* connection);
  ~TavixSettingsClientImplSingleThreaded() override;

  bool GetSettings(const std::set<std::string>& groups, core::IniFile& out) const override;
  void MergeSettings(const core::IniFile& settings, unsigned int flags) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& merge) override;
  bool Amend(const Amendment& amendment) override;
  void Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) override;
  void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings) override;
  void RestoreToDefaults(const std::set<std::string>& groups) override;
  Keeping AskForKeeping() const override;

 private:
  void RunCommand(const char* name, RemoteCommand& command) const TAVIX_EXCLUDES(_mutex);
  bool TryExchange(RemoteCommand& command) const TAVIX_REQUIRES(_mutex);
  bool TryAsk() const TAVIX_REQUIRES(_mutex);
  void CloseConnection() const TAVIX_REQUIRES(_mutex);

  mutable osa::Mutex _mutex;  // held for a whole call
  const std::unique_ptr<TavixSettingsConnection> _pConnection TAVIX_PT_GUARDED_BY(_mutex);
  const bool _isInProcess;                                                    // so is the server, which saves nothing
  mutable std::optional<unsigned int> _askedNumber TAVIX_GUARDED_BY(_mutex);  // the connection that gave the answer
  mutable bool _canAmend TAVIX_GUARDED_BY(_mutex) = false;                    // the answer
};

}  // namespace tavix::settings::client
