#include "programs/server/persistence/Checkpoints.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "programs/common/SettingsFileNames.h"
#include "programs/server/persistence/PieceWriter.h"
#include "programs/server/persistence/Snapshot.h"

namespace tavix::daemon {

namespace {

constexpr size_t kMaxNameBytes = 64;

bool IsName(const std::string& name) {
  constexpr char kCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !name.empty() && name.size() <= kMaxNameBytes && name != "." && name != ".." &&
         name.find_first_not_of(kCharacters) == std::string::npos;
}

void RequireName(const std::string& name) {
  if (!IsName(name))
    throw Checkpoints::Refused("'" + name + "' is no name of a checkpoint: 1 to 64 of A-Z a-z 0-9 . _ -");
}

[[noreturn]] void ThrowUnknown(const std::string& name) {
  throw Checkpoints::Refused("no checkpoint is named '" + name + "'");
}

// what: what can't be done with it.
[[noreturn]] void Fail(const std::string& name, const char* what, const char* reason) {
  throw Checkpoints::Refused("the checkpoint '" + name + "' can't be " + what + ": " + reason);
}

const char* ReasonOf(const std::exception& exception) {
  return dynamic_cast<const std::bad_alloc*>(&exception) ? "out of memory" : exception.what();
}

// Damage behind the first line makes a checkpoint no other file. Nor do zeros and files without bytes, which a file
// system that lost what was written leaves.
void RequireOurs(const std::string& path, const FileContent& content) {
  if (content.error != 0) throw osa::Exception("'%s': %s", path.c_str(), content.problem.c_str());
  core::StringOstream begin;
  BeginSnapshot(begin);
  const std::string& line = begin.GetText();
  const bool isOurs = content.exists && content.isRegular &&
                      (HoldsNothing(content.bytes) || content.bytes.compare(0, line.size(), line) == 0);
  if (!isOurs) throw osa::Exception("'%s' holds something else, and is left as it is", path.c_str());
}

Checkpoints::Checkpoint Parse(const std::string& path, const FileContent& content) {
  Snapshot snapshot = ReadSnapshot(path, content);
  Checkpoints::Checkpoint checkpoint;
  checkpoint.bytes = content.bytes.size();
  if (snapshot.state == Snapshot::State::kIntact && snapshot.revision) {
    checkpoint.revision = *snapshot.revision;
    checkpoint.time = snapshot.end.written;
    checkpoint.settings = std::move(snapshot.settings);
  } else {
    checkpoint.damage = snapshot.problem.empty() ? "'" + path + "' is not as it was written" : snapshot.problem;
  }
  return checkpoint;
}

void End(core::StringOstream& text) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  SnapshotEnd end;
  end.generation = 1;
  end.written = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
  EndSnapshot(text, end);
}

}  // namespace

Checkpoints::Checkpoints(FileSystem& files, const std::string& snapshotPath, size_t max)
    : _files(files),
      _begin(programs::CheckpointsOf(snapshotPath)),
      _newPath(programs::NewFileOf(snapshotPath) + ".checkpoint"),
      _max(max) {
  RemoveQuietly(_files, _newPath);
}

void Checkpoints::RequireRoomFor(const std::string& name) const {
  RequireName(name);
  if (_max == 0) throw Refused("this server makes no checkpoints: it needs --checkpoints N");
  const std::vector<std::string> names = FindNames();
  if (names.size() < _max || std::find(names.begin(), names.end(), name) != names.end()) return;
  throw Refused(std::to_string(_max) + " checkpoints are kept already: forget one of them");
}

void Checkpoints::Begin(core::StringOstream& text, uint64_t revision) {
  BeginSnapshot(text);
  WriteRevision(text, revision);
}

void Checkpoints::Save(const std::string& name, core::StringOstream& text) {
  const osa::PlainMutexLock lock(_mutex);
  RequireRoomFor(name);
  const std::string path = PathOf(name);
  try {
    if (_files.Exists(path)) RequireOurs(path, _files.Read(path));
    End(text);
    Replace(path, text.GetText());
  } catch (const std::exception& exception) {
    Fail(name, "written", ReasonOf(exception));
  }
}

void Checkpoints::Replace(const std::string& path, const std::string& text) {
  try {
    const std::unique_ptr<File> file = _files.Create(_newPath);
    file->Reserve(text.size());
    PieceWriter pieces(*file, 0, PieceWriter::Pace::kGentle);
    pieces.Write(text);
    pieces.Flush();
    file->Sync();
    _files.Rename(_newPath, path);
  } catch (...) {
    RemoveQuietly(_files, _newPath);
    throw;
  }
  _files.SyncDirectoryOf(path);
}

std::vector<std::string> Checkpoints::FindNames() const {
  std::vector<std::string> names;
  try {
    for (const std::string& path : _files.FindNames(_begin)) {
      std::string name = path.substr(_begin.size());
      if (IsName(name)) names.push_back(std::move(name));
    }
  } catch (const osa::Exception& exception) {
    throw Refused(std::string("the checkpoints can't be listed: ") + exception.what());
  }
  return names;
}

// One that is forgotten meanwhile is left out.
std::map<std::string, Checkpoints::Checkpoint> Checkpoints::List() const {
  std::map<std::string, Checkpoint> checkpoints;
  for (const std::string& name : FindNames()) {
    const FileContent content = _files.Read(PathOf(name));
    if (!content.exists) continue;
    Checkpoint checkpoint = Parse(PathOf(name), content);
    checkpoint.settings.Clear();
    checkpoints.emplace(name, std::move(checkpoint));
  }
  return checkpoints;
}

Checkpoints::Checkpoint Checkpoints::Load(const std::string& name) const {
  RequireName(name);
  const FileContent content = _files.Read(PathOf(name));
  if (!content.exists) ThrowUnknown(name);
  Checkpoint checkpoint = Parse(PathOf(name), content);
  if (!checkpoint.damage.empty()) Fail(name, "read", checkpoint.damage.c_str());
  return checkpoint;
}

void Checkpoints::Forget(const std::string& name) {
  RequireName(name);
  const osa::PlainMutexLock lock(_mutex);
  const std::string path = PathOf(name);
  if (!_files.Exists(path)) ThrowUnknown(name);
  try {
    RequireOurs(path, _files.Read(path));
    _files.Remove(path);
    _files.SyncDirectoryOf(path);
  } catch (const std::exception& exception) {
    Fail(name, "removed", ReasonOf(exception));
  }
}

}  // namespace tavix::daemon
