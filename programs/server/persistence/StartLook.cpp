#include "programs/server/persistence/StartLook.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "programs/common/SettingsFileNames.h"
#include "programs/server/persistence/Journal.h"
#include "programs/server/persistence/JournalText.h"
#include "programs/server/persistence/Snapshot.h"
#include "programs/server/persistence/StartReads.h"

namespace tavix::daemon {

using programs::BackupOf;
using programs::BadFilesOf;
using programs::NewFileOf;

namespace {

using Reason = UserSettingsRefused::Reason;

// A file of ours is told by its first line: no more of it is read. why: gets the reason why it was never ours, or "".
FileContent LookAt(FileSystem& files, const std::string& path, std::string& why) {
  ForeignLook look(path);
  FileContent content = files.ReadPieces(path, [&look](std::string_view piece) { return look.Add(piece); });
  why = look.GetReason(content);
  return content;
}

// What is beside the file counts when it can be read; else the file itself decides.
bool IsSnapshotOfOurs(FileSystem& files, const std::string& path) {
  std::string why;
  const FileContent content = LookAt(files, path, why);
  return content.exists && content.isRegular && content.error == 0 && why.empty();
}

bool IsJournalOfOurs(FileSystem& files, const std::string& path) {
  const FileContent content = files.Read(path);
  if (!content.exists || !content.isRegular || content.error != 0) return false;
  return HoldsNothing(content.bytes) || IsBeginOfJournal(content.bytes) ||
         JournalReader(content.bytes).FindLater() != std::string_view::npos;
}

// Nobody else gives names like these, whatever such a file holds.
bool IsPutAside(const std::string& path, const std::string& begin) {
  return path.size() > begin.size() && std::isdigit(static_cast<unsigned char>(path[begin.size()])) != 0;
}

bool HasPutAside(FileSystem& files, const std::string& path) {
  try {
    for (const std::string& begin : {BadFilesOf(path), BadFilesOf(Journal::PathOf(path))}) {
      const std::vector<std::string> names = files.FindNames(begin);
      const auto isPutAside = [&](const auto& name) { return IsPutAside(name, begin); };
      if (std::any_of(names.begin(), names.end(), isPutAside)) return true;
    }
  } catch (const osa::Exception&) {  // a directory that can't be listed
  }
  return false;
}

// FILE.lock proves nothing: each start makes it.
bool HasOursBeside(FileSystem& files, const std::string& path) {
  for (const std::string& beside : {BackupOf(path), NewFileOf(path), NewFileOf(BackupOf(path))}) {
    if (IsSnapshotOfOurs(files, beside)) return true;
  }
  return IsJournalOfOurs(files, Journal::PathOf(path)) || IsJournalOfOurs(files, Journal::NewPathOf(path)) ||
         HasPutAside(files, path);
}

}  // namespace

void LookAtUserSettings(FileSystem& files, const std::string& path, const std::string& name) {
  std::string why;
  const FileContent content = ReadAtStart(name, [&] { return LookAt(files, path, why); });
  if (!content.isRegular) throw UserSettingsRefused(Reason::kNotOurs, "Failed to use " + name + ": " + content.problem);
  if (why.empty() || HasOursBeside(files, path)) return;
  throw UserSettingsRefused(Reason::kNotOurs, "Failed to use " + name + ": it is not a file of user settings (" + why +
                                                  "), and it is left as it is");
}

}  // namespace tavix::daemon
