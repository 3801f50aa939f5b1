#pragma once

#include "programs/cli/LocalText.h"
#include "programs/cli/Session.h"

namespace tavix::cli {

// A settings file in place of a daemon. It has one layer: nothing in it is restricted, and what is brought back to its
// defaults goes, so that the defaults count again wherever the file is used. A file that is missing can be written, and
// not read. Comments and order are kept.
//
// Two commands at once: each write reads the file anew under a lock, and replaces it whole.
class LocalSession : public Session {
 public:
  explicit LocalSession(std::string path);
  ~LocalSession() override;

  std::string GetAddress() const override { return "file '" + _path + "'"; }
  core::IniFile Get(const Groups& groups) override;
  void AllowNew() override { _mayBeNew = true; }
  core::IniFile GetUserSettings() override;
  bool IsRestricted(const std::string&) const override { return false; }
  void Merge(const core::IniFile& settings, bool isVolatile) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings) override;
  void Overwrite(const Groups& groups, const core::IniFile& settings) override;
  void Restore(const Groups& groups) override;
  std::vector<std::string> GetSubscribed() override;
  core::IniFile Subscribe(const Groups& groups) override;
  std::optional<Notice> AwaitNotice(std::optional<std::chrono::milliseconds> limit) override;
  void SetProgress(Progress) override {}

 private:
  // What stands in the file; an empty text when it is missing and may be.
  LocalText Read(bool mayBeMissing) const;

  // Reads the file, has "change" change the settings, and writes them, with no other command in between. A change that
  // returns false changes nothing.
  bool Write(const std::function<bool(core::IniFile&)>& change) const;

  const std::string _path;
  bool _mayBeNew = false;
  Groups _subscribed;
  Groups _lastNames;  // of the subscribed groups, when they were last read
  int _watch = -1;    // a descriptor of inotify(7)
};

}  // namespace tavix::cli
