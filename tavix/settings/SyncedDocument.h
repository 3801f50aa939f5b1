#pragma once

#include <memory>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings {

class TavixSettingsClient;

// Keeps a document of the caller's in step with the store, as IniWatcher does, and misses nothing: it subscribes before
// it reads, and after every reconnection it reads again before it reports.
//
// Threads: one thread calls; notices are collected on the client's. The document is touched in Update and TryUpdate
//          only.
// Owns:    neither client nor document; both outlive this object.
// Errors:  osa::Exception "%s was NULL", "TryUpdate called before Update", and what the client throws. A call that
//          fails leaves the document as it was, and the next one makes up for it.
class TAVIX_EXPORT SyncedDocument {
 public:
  SyncedDocument(TavixSettingsClient* client, core::IniFile* target);
  ~SyncedDocument();

  SyncedDocument(const SyncedDocument&) = delete;
  SyncedDocument& operator=(const SyncedDocument&) = delete;

  // A group name or '*' pattern. Those added after the first Update count for nothing.
  void AddPattern(const std::string& pattern);

  // The first call subscribes and fills the document; later ones bring it up to date. Returns whether it changed: the
  // first call returns true. Waits for a reply when the document must be read anew.
  bool Update();

  // As a later Update, but does not wait for a notice that is just being taken in. The one reading after a reconnection
  // waits for its reply.
  bool TryUpdate();

 private:
  class TAVIX_LOCAL Impl;
  std::unique_ptr<Impl> _pImpl;
};

}  // namespace tavix::settings
