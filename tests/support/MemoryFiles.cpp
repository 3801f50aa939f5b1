#include "tests/support/MemoryFiles.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::test {

using daemon::File;
using daemon::FileContent;
using Kind = MemoryFiles::Operation::Kind;

namespace {

const char* NameOf(Kind kind) {
  static constexpr const char* kNames[] = {"create",          "open",    "make room for", "write",  "sync",
                                           "set the time of", "replace", "link",          "remove", "sync directory",
                                           "shorten"};
  return kNames[static_cast<size_t>(kind)];
}

constexpr size_t kBlock = 4096;

// What they take on a disk.
size_t CountBlocks(size_t bytes) {
  return (bytes + kBlock - 1) / kBlock * kBlock;
}

MemoryFiles::Operation MakeOperation(Kind kind, const std::string& path, const std::string& to = "") {
  MemoryFiles::Operation operation;
  operation.kind = kind;
  operation.path = path;
  operation.to = to;
  return operation;
}

}  // namespace

class MemoryFiles::OpenFile : public File {
 public:
  OpenFile(MemoryFiles& files, std::string path, size_t number)
      : _files(files), _path(std::move(path)), _number(number), _isOpen(files.NoteOpen(number)) {}

  void WriteAt(uint64_t offset, std::string_view bytes) override {
    Operation operation = MakeOperation(Kind::kWrite, _path);
    operation.file = _number;
    operation.offset = offset;
    operation.bytes = bytes;
    _files.Do(std::move(operation), [&](Operation& done, bool fails) {
      const bool isFull = !fails && !_files.HasRoomFor(_number, offset + bytes.size());
      const std::string_view written = fails || isFull ? bytes.substr(0, bytes.size() / 2) : bytes;
      if (!isFull || _files.HasRoomFor(_number, offset + written.size())) _files.Write(_number, offset, written);
      if (!isFull) return;
      done.bytes = _files._files[_number].bytes.size() < offset + written.size() ? "" : std::string(written);
      _files._operations.push_back(done);
      throw daemon::NoRoom("Failed to write '" + _path + "': No space left on device");
    });
  }

  void Reserve(uint64_t bytes) override {
    Operation operation = MakeOperation(Kind::kReserve, _path);
    operation.file = _number;
    operation.offset = bytes;
    _files.Do(std::move(operation), [&](Operation&, bool fails) {
      if (fails) return;
      if (!_files.HasRoomFor(_number, bytes))
        throw daemon::NoRoom("Failed to make room for '" + _path + "': No space left on device");
      size_t& reserved = _files._files[_number].reserved;
      reserved = std::max(reserved, static_cast<size_t>(bytes));
    });
  }

  void Truncate(uint64_t bytes) override {
    Operation operation = MakeOperation(Kind::kTruncate, _path);
    operation.file = _number;
    operation.offset = bytes;
    _files.Do(std::move(operation), [&](Operation&, bool fails) {
      if (fails) return;
      Content& content = _files._files[_number];
      content.bytes.resize(static_cast<size_t>(std::min<uint64_t>(content.bytes.size(), bytes)));
      content.reserved = 0;
    });
  }

  void WriteOut(uint64_t, uint64_t, bool) override {}

  void Sync() override {
    Operation operation = MakeOperation(Kind::kSync, _path);
    operation.file = _number;
    _files.Do(std::move(operation), [](Operation&, bool) {});
  }

  void SetModificationTime(int64_t nanoseconds) override {
    Operation operation = MakeOperation(Kind::kSetTime, _path);
    operation.file = _number;
    operation.time = nanoseconds;
    _files.Do(std::move(operation), [&](Operation&, bool fails) {
      if (!fails) _files._files[_number].time = nanoseconds;
    });
  }

 private:
  MemoryFiles& _files;
  const std::string _path;
  const size_t _number;
  const std::shared_ptr<const bool> _isOpen;
};

MemoryFiles::MemoryFiles(const Image& image) {
  for (const auto& [path, content] : image) {
    _names[path] = _files.size();
    _files.push_back({content.bytes, content.modificationTime, 0, {}});
  }
}

// effect: is told whether the operation fails, and then does what a failure leaves, if anything.
template <class Effect>
void MemoryFiles::Do(Operation operation, Effect effect) {
  std::vector<Observer> observers;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    observers = _observers;
  }
  for (const Observer& observer : observers) observer(operation);
  std::lock_guard<std::mutex> lock(_mutex);
  const bool fails = _fails && _untilFailure == 0;
  if (_fails && _untilFailure > 0) --_untilFailure;
  if (fails && !_failsForEver) _fails = false;
  effect(operation, fails);
  if (fails && operation.kind == Kind::kWrite) {
    operation.bytes.resize(operation.bytes.size() / 2);
    _operations.push_back(operation);
  }
  if (fails)
    throw daemon::NoRoom("Failed to " + std::string(NameOf(operation.kind)) + " '" + operation.path +
                         "': No space left on device");
  _operations.push_back(std::move(operation));
}

std::unique_ptr<File> MemoryFiles::Create(const std::string& path) {
  if (Exists(path)) Remove(path);
  size_t number = 0;
  Do(MakeOperation(Kind::kCreate, path), [&](Operation& operation, bool fails) {
    if (fails) return;
    number = operation.file = _names[path] = _files.size();
    _files.emplace_back();
  });
  return std::make_unique<OpenFile>(*this, path, number);
}

std::unique_ptr<File> MemoryFiles::Open(const std::string& path) {
  size_t number = 0;
  Do(MakeOperation(Kind::kOpen, path), [&](Operation& operation, bool) {
    const auto name = _names.find(path);
    if (name == _names.end()) throw osa::Exception("Failed to open '%s': No such file or directory", path.c_str());
    number = operation.file = name->second;
  });
  return std::make_unique<OpenFile>(*this, path, number);
}

FileContent MemoryFiles::Read(const std::string& path) {
  std::lock_guard<std::mutex> lock(_mutex);
  FileContent content;
  FailingRead& failing = _failingReads[path];
  if (failing.times > 0) {
    --failing.times;
    content.exists = true;
    content.error = failing.error;
    content.problem = std::strerror(failing.error);
    return content;
  }
  const auto name = _names.find(path);
  if (name == _names.end()) return content;
  content.exists = true;
  content.bytes = _files[name->second].bytes;
  content.modificationTime = _files[name->second].time;
  return content;
}

FileContent MemoryFiles::ReadPieces(const std::string& path, const OnPiece& onPiece) {
  FileContent content = Read(path);
  const std::string bytes = std::exchange(content.bytes, {});
  std::string_view rest = bytes;
  while (!rest.empty()) {
    const size_t size = std::min(rest.find('\n'), rest.size() - 1) + 1;
    if (!onPiece(rest.substr(0, size))) break;
    rest.remove_prefix(size);
  }
  return content;
}

// Fails as a read of the whole file does.
std::string MemoryFiles::ReadPart(const std::string& path, uint64_t offset, size_t bytes) {
  const FileContent content = Read(path);
  const std::string reason = content.exists ? content.problem : "No such file or directory";
  if (!reason.empty()) throw osa::Exception("Failed to read '%s': %s", path.c_str(), reason.c_str());
  const size_t begin = std::min(content.bytes.size(), static_cast<size_t>(offset));
  return content.bytes.substr(begin, bytes);
}

void MemoryFiles::Rename(const std::string& from, const std::string& to) {
  Do(MakeOperation(Kind::kRename, from, to), [&](Operation&, bool fails) {
    if (fails) return;
    const auto name = _names.find(from);
    if (name == _names.end()) throw osa::Exception("Failed to replace '%s': No such file or directory", to.c_str());
    const size_t file = name->second;
    const auto old = _names.find(to);
    if (old != _names.end() && old->second == file) return;  // as POSIX says of two names of one file
    _names.erase(name);
    _names[to] = file;
  });
}

void MemoryFiles::Link(const std::string& from, const std::string& to) {
  Do(MakeOperation(Kind::kLink, from, to), [&](Operation&, bool fails) {
    if (fails) return;
    if (_names.count(to) > 0) throw osa::Exception("Failed to link '%s': File exists", to.c_str());
    _names[to] = _names.at(from);
  });
}

void MemoryFiles::Remove(const std::string& path) {
  if (!Exists(path)) return;
  Do(MakeOperation(Kind::kRemove, path), [&](Operation&, bool fails) {
    if (!fails) _names.erase(path);
  });
}

bool MemoryFiles::Exists(const std::string& path) {
  std::lock_guard<std::mutex> lock(_mutex);
  return _names.count(path) > 0;
}

std::vector<std::string> MemoryFiles::FindNames(const std::string& begin) {
  std::vector<std::string> names;
  for (std::string& name : GetNames()) {
    if (name.compare(0, begin.size(), begin) == 0) names.push_back(std::move(name));
  }
  return names;
}

void MemoryFiles::Sync(const std::string& path) {
  Do(MakeOperation(Kind::kSync, path), [&](Operation& operation, bool) {
    const auto name = _names.find(path);
    if (name == _names.end()) throw osa::Exception("Failed to open '%s': No such file or directory", path.c_str());
    operation.file = name->second;
  });
}

void MemoryFiles::SyncDirectoryOf(const std::string& path) {
  Do(MakeOperation(Kind::kSyncDirectory, path), [](Operation&, bool) {});
}

void MemoryFiles::Put(const std::string& path, const std::string& bytes) {
  std::lock_guard<std::mutex> lock(_mutex);
  _names[path] = _files.size();
  _files.push_back({bytes, 0, 0, {}});
}

std::string MemoryFiles::Get(const std::string& path) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto name = _names.find(path);
  return name == _names.end() ? "" : _files[name->second].bytes;
}

std::vector<std::string> MemoryFiles::GetNames() const {
  std::lock_guard<std::mutex> lock(_mutex);
  std::vector<std::string> names;
  for (const auto& name : _names) names.push_back(name.first);
  return names;
}

MemoryFiles::Image MemoryFiles::GetImage() const {
  std::lock_guard<std::mutex> lock(_mutex);
  Image image;
  for (const auto& [path, number] : _names) {
    FileContent& content = image[path];
    content.exists = true;
    content.bytes = _files[number].bytes;
    content.modificationTime = _files[number].time;
  }
  return image;
}

size_t MemoryFiles::CountOperations() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _operations.size();
}

std::vector<MemoryFiles::Operation> MemoryFiles::GetOperations() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _operations;
}

void MemoryFiles::FailAfter(size_t operations, bool forEver) {
  std::lock_guard<std::mutex> lock(_mutex);
  _untilFailure = operations;
  _fails = true;
  _failsForEver = forEver;
}

void MemoryFiles::FailNoMore() {
  std::lock_guard<std::mutex> lock(_mutex);
  _fails = false;
}

void MemoryFiles::FailReads(const std::string& path, int error, size_t times) {
  std::lock_guard<std::mutex> lock(_mutex);
  _failingReads[path] = {error, times};
}

void MemoryFiles::LimitRoom(size_t bytes) {
  std::lock_guard<std::mutex> lock(_mutex);
  _room = bytes;
}

void MemoryFiles::AddObserver(Observer observer) {
  std::lock_guard<std::mutex> lock(_mutex);
  _observers.push_back(std::move(observer));
}

// The caller holds the lock.
void MemoryFiles::Write(size_t file, uint64_t offset, std::string_view bytes) {
  std::string& content = _files[file].bytes;
  const auto begin = static_cast<size_t>(offset);
  content.resize(std::max(content.size(), begin + bytes.size()), '\0');
  content.replace(begin, bytes.size(), bytes);
}

std::shared_ptr<const bool> MemoryFiles::NoteOpen(size_t file) {
  std::lock_guard<std::mutex> lock(_mutex);
  std::shared_ptr<const bool> isOpen = _files[file].isOpen.lock();
  if (!isOpen) _files[file].isOpen = isOpen = std::make_shared<const bool>(true);
  return isOpen;
}

// The caller holds the lock.
size_t MemoryFiles::CountRoom() const {
  std::set<size_t> named;
  for (const auto& name : _names) named.insert(name.second);
  size_t room = 0;
  for (size_t number = 0; number < _files.size(); ++number) {
    const Content& file = _files[number];
    if (!file.isOpen.expired() || named.count(number) > 0)
      room += CountBlocks(std::max(file.bytes.size(), file.reserved));
  }
  return room;
}

// The caller holds the lock.
bool MemoryFiles::HasRoomFor(size_t file, uint64_t bytes) const {
  const Content& content = _files[file];
  const size_t before = CountBlocks(std::max(content.bytes.size(), content.reserved));
  const size_t after = std::max(before, CountBlocks(static_cast<size_t>(bytes)));
  return _room == SIZE_MAX || CountRoom() - before + after <= _room;
}

}  // namespace tavix::test
