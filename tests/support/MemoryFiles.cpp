#include "tests/support/MemoryFiles.h"

#include <algorithm>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::test {

using daemon::File;
using daemon::FileContent;
using Kind = MemoryFiles::Operation::Kind;

namespace {

const char* NameOf(Kind kind) {
  static constexpr const char* kNames[] = {"create",          "open",    "make room for", "write",  "sync",
                                           "set the time of", "replace", "link",          "remove", "sync directory"};
  return kNames[static_cast<size_t>(kind)];
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
      : _files(files), _path(std::move(path)), _number(number) {}

  void WriteAt(uint64_t offset, std::string_view bytes) override {
    Operation operation = MakeOperation(Kind::kWrite, _path);
    operation.file = _number;
    operation.offset = offset;
    operation.bytes = bytes;
    _files.Do(std::move(operation), [&](Operation&, bool fails) {
      _files.Write(_number, offset, fails ? bytes.substr(0, bytes.size() / 2) : bytes);
    });
  }

  void Reserve(uint64_t bytes) override {
    Operation operation = MakeOperation(Kind::kReserve, _path);
    operation.file = _number;
    operation.offset = bytes;
    _files.Do(std::move(operation), [](Operation&, bool) {});
  }

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
};

MemoryFiles::MemoryFiles(const Image& image) {
  for (const auto& [path, content] : image) {
    _names[path] = _files.size();
    _files.push_back({content.bytes, content.modificationTime});
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
    throw osa::Exception("Failed to %s '%s': No space left on device", NameOf(operation.kind), operation.path.c_str());
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
  const auto name = _names.find(path);
  if (name == _names.end()) return content;
  content.exists = true;
  content.bytes = _files[name->second].bytes;
  content.modificationTime = _files[name->second].time;
  return content;
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
  _files.push_back({bytes, 0});
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

void MemoryFiles::AddObserver(Observer observer) {
  std::lock_guard<std::mutex> lock(_mutex);
  _observers.push_back(std::move(observer));
}

// The caller holds the lock.
void MemoryFiles::Write(size_t file, uint64_t offset, std::string_view bytes) {
  std::string& content = _files[file].bytes;
  content.resize(std::max<size_t>(content.size(), offset + bytes.size()), '\0');
  content.replace(offset, bytes.size(), bytes);
}

}  // namespace tavix::test
