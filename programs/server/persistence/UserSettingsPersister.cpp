#include "programs/server/persistence/UserSettingsPersister.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "tavix/core/Logger.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

namespace {

constexpr unsigned int kStackSize = 128 * 1024;
constexpr uint64_t kLeastJournal = 64 * 1024;  // below that no snapshot is worth its while
constexpr std::chrono::seconds kFirstDelay{1};
constexpr std::chrono::seconds kLongestDelay{60};

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("UserSettings");
  return logger;
}

int64_t GetNanoseconds() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

UserSettingsPersister::Worker::Worker(const char* name, std::function<void()> loop)
    : _loop(std::move(loop)), _thread(name, this, kStackSize, 0) {
  _thread.Run();
}

UserSettingsPersister::Worker::~Worker() {
  _thread.Join();
}

UserSettingsPersister::UserSettingsPersister(FileSystem& files, const std::string& path, Durability durability,
                                             SaveObserver observer)
    : _filesystem(files),
      _path(path),
      _durability(durability),
      _observer(std::move(observer)),
      _gate(true),
      _files(files, path) {}

UserSettingsPersister::~UserSettingsPersister() {
  Stop();
}

FoundUserSettings UserSettingsPersister::Load() {
  FoundUserSettings found = _files.Find(true);
  for (const std::string& problem : found.problems) Log()->Error("%s", problem.c_str());
  for (const std::string& notice : found.notices) Log()->Warning("%s", notice.c_str());
  std::lock_guard<std::mutex> lock(_mutex);
  _generation = found.mustBeWritten ? 0 : found.generation;
  _nextGeneration = found.nextGeneration;
  _snapshotBytes = found.snapshotBytes;
  if (!found.mustBeWritten) _journal = std::move(found.journal);
  _snapshotIsAsked = found.mustBeWritten;
  LetGoUnlessAlways();
  return found;
}

void UserSettingsPersister::Start(LayerReader readLayer) {
  _readLayer = std::move(readLayer);
  _sync = std::make_unique<Worker>("JournalSync", [this] { SyncLoop(); });
  _snapshot = std::make_unique<Worker>("Snapshot", [this] { SnapshotLoop(); });
}

void UserSettingsPersister::Save(const core::IniFile& userSettings, const std::set<std::string>& changedGroups) {
  if (changedGroups.empty()) return;
  const Change change = DescribeChange(userSettings, changedGroups);
  std::lock_guard<std::mutex> lock(_mutex);
  if (_synced == _last) _firstUnsynced = Clock::now();
  // What was overwritten takes default groups away, which the user layer need not hold.
  const bool mayShowInAny = changedGroups.count(settings::server::SettingsManager::kDeletedGroups) > 0;
  _last = _gate.Add(mayShowInAny ? nullptr : &changedGroups);
  if (_keepsChanges) _changes.push_back(change);
  if (!_failed && _generation != 0) {
    Append(change);
  } else if (!_keepsChanges) {
    AskForSnapshot();
  }
}

// The caller holds the lock, here and wherever nothing else is said.
void UserSettingsPersister::Append(const Change& change) {
  try {
    if (_journal) {
      _journal->Append(change);
    } else {
      OpenJournal({change});
    }
    const bool isLong = _journal->GetEnd() > std::max<uint64_t>(_snapshotBytes, kLeastJournal);
    if (isLong && !_keepsChanges) AskForSnapshot();
    if (_durability.kind != Durability::Kind::kNone) _wakeSync.notify_one();
  } catch (const std::exception& exception) {
    Fail(exception.what());
  }
}

void UserSettingsPersister::OpenJournal(const std::vector<Change>& changes) {
  _journal = Journal::Create(_filesystem, _path, _generation, changes);
  if (_durability.kind == Durability::Kind::kNone) _journal->TakePlace();
}

void UserSettingsPersister::SyncLoop() {
  std::unique_lock<std::mutex> lock(_mutex);
  while (AwaitSync(lock)) SyncJournal(lock);
}

// False when it is time to stop.
bool UserSettingsPersister::AwaitSync(std::unique_lock<std::mutex>& lock) {
  const auto mustSync = [this] { return _journal && _synced < _last && _durability.kind != Durability::Kind::kNone; };
  while (!_stop) {
    if (!mustSync()) {
      _wakeSync.wait(lock);
    } else if (_durability.kind == Durability::Kind::kAlways || Clock::now() >= _firstUnsynced + _durability.interval) {
      return true;
    } else {
      _wakeSync.wait_until(lock, _firstUnsynced + _durability.interval);
    }
  }
  return false;
}

void UserSettingsPersister::SyncJournal(std::unique_lock<std::mutex>& lock) {
  const std::shared_ptr<Journal> journal = _journal;
  const DurabilityGate::Ticket last = _last;
  _firstUnsynced = Clock::now();  // no change that is made from now on is older
  try {
    lock.unlock();
    journal->SyncRecords();
    lock.lock();
    if (journal != _journal && !journal->IsInPlace()) return;  // given up, and the place is another's by now
    journal->TakePlace();
    lock.unlock();
    journal->SyncName();
    _observer(true, 0);
    _gate.SetDurable(last);
    lock.lock();
    _synced = std::max(_synced, last);
    if (!_snapshotIsAsked && !_keepsChanges) _delay = std::chrono::seconds(0);
  } catch (const std::exception& exception) {
    if (!lock.owns_lock()) lock.lock();
    if (journal != _journal) return;  // a snapshot has made it worthless meanwhile
    _observer(false, 0);
    Fail(exception.what());
  }
}

void UserSettingsPersister::SnapshotLoop() {
  std::unique_lock<std::mutex> lock(_mutex);
  while (!_stop) {
    if (!_snapshotIsAsked) {
      _wakeSnapshot.wait(lock);
    } else if (Clock::now() < _nextTry) {
      _wakeSnapshot.wait_until(lock, _nextTry);
    } else {
      lock.unlock();
      WriteSnapshot();
      lock.lock();
    }
  }
}

// The caller does not hold the lock.
bool UserSettingsPersister::WriteSnapshot() {
  core::StringOstream text;
  SnapshotEnd end;
  DurabilityGate::Ticket last = 0;
  try {
    BeginSnapshot(text);
    _readLayer([&](const core::IniFile& layer) {
      layer.SaveToStream(text);
      std::lock_guard<std::mutex> lock(_mutex);
      end.generation = _nextGeneration++;
      SayWhereChangesGoOn(end);
      last = _last;
      _keepsChanges = true;
      _snapshotIsAsked = false;
    });
    end.written = GetNanoseconds();
    EndSnapshot(text, end);
    _files.ReplaceSnapshot(text.GetText(), end.written);
  } catch (const std::exception& exception) {
    FailSnapshot(exception.what());
    return false;
  }
  TakeOver(end.generation, text.GetText().size(), last);
  return true;
}

// Those that are made while a snapshot is written go to the journal there is, or to one that is begun meanwhile. After
// a failure they go nowhere.
void UserSettingsPersister::SayWhereChangesGoOn(SnapshotEnd& end) const {
  if (_failed || _generation == 0) return;
  end.journalFollows = _journal ? _journal->GetFollowed() : _generation;
  end.journalEnd = _journal ? _journal->GetEnd() : kJournalHeaderSize;
}

// The snapshot holds all changes up to that one; those since begin a journal of their own. The caller does not hold the
// lock.
void UserSettingsPersister::TakeOver(uint64_t generation, size_t bytes, DurabilityGate::Ticket ticket) {
  _observer(true, bytes);
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _keepsChanges = false;
    _snapshotIsAsked = false;
    const std::vector<Change> changes = std::exchange(_changes, {});
    _generation = generation;
    _snapshotBytes = bytes;
    const std::shared_ptr<Journal> before = std::exchange(_journal, nullptr);
    _synced = std::max(_synced, ticket);
    if (std::exchange(_failed, false)) {
      Log()->Warning("'%s' is saved again", _path.c_str());
      _gate.Hold();
    }
    if (changes.empty()) _delay = std::chrono::seconds(0);
    try {
      // Until the new journal stands, the one before holds the changes, and its name on the way is the new one's.
      if (before && !changes.empty()) before->TakePlace();
      if (!changes.empty()) OpenJournal(changes);
      if (_synced < _last) _wakeSync.notify_one();
    } catch (const std::exception& exception) {
      Fail(exception.what());
    }
    LetGoUnlessAlways();
  }
  _gate.SetDurable(ticket);
}

// Until there is a snapshot that a journal can follow, a change is in memory alone: to show it would promise too much,
// whatever the durability.
void UserSettingsPersister::LetGoUnlessAlways() {
  if (_durability.kind != Durability::Kind::kAlways && _generation != 0) _gate.LetGo();
}

// What was synced so far stays; the journal goes on if there is one.
void UserSettingsPersister::FailSnapshot(const std::string& reason) {
  _observer(false, 0);
  std::lock_guard<std::mutex> lock(_mutex);
  _keepsChanges = false;
  _changes.clear();
  if (_generation == 0 || _failed) return Fail(reason);
  Log()->Warning("%s; the journal goes on, and the snapshot is tried again", reason.c_str());
  TryLater();
}

// What waits for the disk is let go first: nobody is to wait for whoever reads the log.
void UserSettingsPersister::Fail(const std::string& reason) {
  _journal.reset();
  TryLater();
  _gate.LetGo();
  if (!std::exchange(_failed, true)) {
    Log()->Error("%s; changes are kept in memory and saved as soon as that is possible", reason.c_str());
  } else {
    Log()->Warning("%s; it is tried again", reason.c_str());
  }
}

void UserSettingsPersister::AskForSnapshot() {
  _snapshotIsAsked = true;
  _wakeSnapshot.notify_one();
}

void UserSettingsPersister::TryLater() {
  _delay = std::clamp(2 * _delay, kFirstDelay, kLongestDelay);
  _nextTry = Clock::now() + _delay;
  AskForSnapshot();
}

void UserSettingsPersister::Stop() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _stop = true;
  }
  _wakeSync.notify_all();
  _wakeSnapshot.notify_all();
  _sync.reset();
  _snapshot.reset();
}

bool UserSettingsPersister::Finish() {
  Stop();
  bool isWhole = !_journal && !_failed && !_snapshotIsAsked;
  try {
    isWhole = isWhole || WriteSnapshot();
    if (isWhole) {
      _files.RemoveJournals();
    } else if (_journal) {
      _journal->Sync();
    }
    return !_failed;
  } catch (const std::exception& exception) {
    Log()->Warning("%s", exception.what());
    return isWhole;
  }
}

}  // namespace tavix::daemon
