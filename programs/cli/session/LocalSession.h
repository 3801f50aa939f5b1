#pragma once

#include <optional>

#include "programs/cli/session/ReplaceFile.h"
#include "programs/cli/text/LocalText.h"
#include "programs/common/client/Session.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::programs::cli {

// A settings file in place of a daemon. It has one layer: nothing in it is restricted, and what is brought back to its
// defaults goes, so that the defaults count again wherever the file is used. A file that is missing can be written, and
// not read. Comments and order are kept.
//
// Two commands at once: each write reads the file anew under a lock, and replaces it whole. RunAlone holds the lock.
//
// Threads: as Session.
// Errors:  besides the base's, writes throw Failure: kExitNoServer when another command holds the lock for too long;
//          kExitNotApplied when the file is no plain one, or is a daemon's, which would not see the change and undo it;
//          kExitUsage when the access is kRead.
class LocalSession : public Session {
 public:
  enum class Access {
    kReadWrite,
    kRead,  // the environment names the file: programs read it, and none of them writes to it
  };

  // patience: how long a write waits for another command's.
  LocalSession(std::string path, std::chrono::milliseconds patience, Access access);

  std::string GetAddress() const override { return "file '" + _path + "'"; }
  core::IniFile Get(const Groups& groups) override;
  void GetEach(const Groups& groups, const TakeGroup& take) override;
  void AllowNew() override { _canBeNew = true; }
  core::IniFile GetUserSettings() override;
  void RunAlone(const std::function<void()>& change) override;
  bool CanRunAlone() const override { return true; }
  void RequireWritable() const override;
  bool IsRestricted(const std::string&) const override { return false; }
  std::vector<std::string> GetSubscribed() override;
  bool CanAmend() override { return true; }
  std::map<std::string, std::string> GetWhoami() override;
  const std::map<std::string, std::string>* FindFeatures() override;
  Answer Ask(const std::string& line, Effect effect) override;
  void SetTrial(unsigned seconds, const std::string& name) override;
  void SetNote(const std::string& note) override;
  core::IniFile Subscribe(const Groups& groups) override;
  std::optional<Notice> AwaitNotice(std::optional<std::chrono::milliseconds> limit) override;
  void SetProgress(Progress) override {}

 private:
  void Merge(const core::IniFile& settings, bool isVolatile) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings) override;
  bool Amend(const settings::Amendment& amendment) override;
  void Overwrite(const Groups& groups, const core::IniFile& settings) override;
  void Restore(const Groups& groups) override;

  [[noreturn]] void RefuseWithoutServer(const std::string& what) const;

  // False when the directory is no longer where it was.
  bool ReadEvents() const;

  // What stands in the file; an empty text when it is missing and can be.
  LocalText Read(bool canBeMissing) const;

  // Takes groups out of the file and sets what "settings" holds, with no other command in between.
  void Write(const LocalText::IsMeant& isGone, const core::IniFile& settings);

  const std::string _path;
  const std::chrono::milliseconds _patience;
  const Access _access;
  std::optional<FileLock> _lock;  // while something runs alone
  bool _canBeNew = false;
  Groups _subscribed;
  Groups _lastNames;       // of the subscribed groups, when they were last read
  osa::Descriptor _watch;  // a descriptor of inotify(7)
};

}  // namespace tavix::programs::cli
