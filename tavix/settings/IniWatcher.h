#pragma once

#include <memory>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings {

class TavixSettingsClient;

// Keeps a document of the caller's in step with the store, and touches it only when the caller says so.
//
//     IniWatcher watcher(&client, &document);
//     watcher.AddPattern("Network/*");
//     watcher.Update();                    // reads and subscribes
//     while (running) {
//       if (watcher.TryUpdate()) Apply(document);
//       ...
//     }
//
// Two windows are left: a change between the first reading and the subscription, and changes while the connection is
// lost, are not seen until the group changes again. SyncedDocument has neither; prefer it where a missed change
// matters.
//
// Threads: one thread calls; notices are collected on the client's. The document is touched in Update and TryUpdate
//          only.
// Owns:    neither client nor document; both outlive the watcher.
// Errors:  osa::Exception "%s was NULL", "TryUpdate called before Update", and what the client throws. A first Update
//          that fails may be called again.
class TAVIX_EXPORT IniWatcher {
 public:
  IniWatcher(TavixSettingsClient* client, core::IniFile* targetIni);
  ~IniWatcher();

  IniWatcher(const IniWatcher&) = delete;
  IniWatcher& operator=(const IniWatcher&) = delete;

  // A group name or '*' pattern. Those added after the first Update are neither read nor subscribed.
  void AddPattern(const std::string& pattern);

  // The first call empties the document, reads all groups into it and subscribes; later ones apply the notices that
  // have come. Returns whether the document may have changed. A changed group becomes what the store holds of it.
  bool Update();

  // As a later Update, but never waits: false also when a notice is just being taken in.
  bool TryUpdate();

 private:
  class TAVIX_LOCAL IniWatcherImpl;
  std::unique_ptr<IniWatcherImpl> _pImpl;
};

}  // namespace tavix::settings
