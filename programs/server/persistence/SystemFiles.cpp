#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "programs/server/persistence/FileSystem.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr int64_t kNanosecondsInASecond = 1000 * 1000 * 1000;
constexpr mode_t kOwnerOnly = 0600;
constexpr off_t kMaxBytes = 1024 * 1024 * 1024;  // of settings; a file that claims more is a file system's damage
constexpr size_t kEndBytes = 64 * 1024;          // read of each end of such a file
constexpr size_t kPieceBytes = 64 * 1024;        // of a file that is not kept

bool IsFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

[[noreturn]] void Fail(const char* what, const std::string& path) {
  const int error = errno;
  const std::string message = std::string("Failed to ") + what + " '" + path + "': " + std::strerror(error);
  if (IsFull(error)) throw NoRoom(message);
  throw osa::Exception("%s", message.c_str());
}

// Calls again what a signal interrupted.
template <class Call>
auto Retry(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

osa::Descriptor OpenOrFail(const char* what, const std::string& path, int flags, mode_t mode = 0) {
  const int descriptor = Retry([&] { return open(path.c_str(), flags | O_CLOEXEC, mode); });
  if (descriptor < 0) Fail(what, path);
  return osa::Descriptor(descriptor);
}

class SystemFile : public File {
 public:
  SystemFile(const char* what, const std::string& path, int flags)
      : _path(path), _descriptor(OpenOrFail(what, path, flags | O_WRONLY | O_NOFOLLOW, kOwnerOnly)) {}

  void WriteAt(uint64_t offset, std::string_view bytes) override {
    while (!bytes.empty()) {
      const ssize_t written =
          Retry([&] { return pwrite(_descriptor.Get(), bytes.data(), bytes.size(), static_cast<off_t>(offset)); });
      if (written == 0) errno = ENOSPC;  // no progress, for ever
      if (written <= 0) Fail("write", _path);
      bytes.remove_prefix(static_cast<size_t>(written));
      offset += static_cast<uint64_t>(written);
    }
  }

  // The file's size stays: what is behind it would read as zeros that were never written.
  void Reserve(uint64_t bytes) override {
    const int descriptor = _descriptor.Get();
    const off_t size = static_cast<off_t>(bytes);
    if (Retry([&] { return fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, size); }) == 0) return;
    const int error = errno;
    if (!IsFull(error)) return;
    struct stat status {};
    const bool isGivenBack = fstat(descriptor, &status) == 0 && ftruncate(descriptor, status.st_size) == 0;
    static_cast<void>(isGivenBack);  // some file systems keep what they found
    errno = error;
    Fail("make room for", _path);
  }

  void Truncate(uint64_t bytes) override {
    if (Retry([&] { return ftruncate(_descriptor.Get(), static_cast<off_t>(bytes)); }) != 0) Fail("shorten", _path);
  }

  // An error that is found here is not found by a sync again.
  void WriteOut(uint64_t offset, uint64_t bytes, bool awaitsEarlier) override {
    constexpr unsigned int kAwait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    if (awaitsEarlier && _writtenOutEnd == offset) DoWriteOut(_writtenOutBegin, _writtenOutEnd, kAwait);
    DoWriteOut(offset, offset + bytes, SYNC_FILE_RANGE_WRITE);
    _writtenOutBegin = offset;
    _writtenOutEnd = offset + bytes;
  }

  void Sync() override {
    const auto sync = [&] { return _timeIsNew ? fsync(_descriptor.Get()) : fdatasync(_descriptor.Get()); };
    if (Retry(sync) != 0) Fail("sync", _path);
    _timeIsNew = false;
  }

  void SetModificationTime(int64_t nanoseconds) override {
    timespec times[2] = {{0, UTIME_OMIT}, {}};
    times[1].tv_sec = nanoseconds / kNanosecondsInASecond;
    times[1].tv_nsec = static_cast<long>(nanoseconds % kNanosecondsInASecond);
    if (futimens(_descriptor.Get(), times) != 0) Fail("set the time of", _path);
    _timeIsNew = true;
  }

 private:
  void DoWriteOut(uint64_t begin, uint64_t end, unsigned int flags) const {
    const auto offset = static_cast<off_t>(begin);
    const auto bytes = static_cast<off_t>(end - begin);
    if (Retry([&] { return sync_file_range(_descriptor.Get(), offset, bytes, flags); }) == 0) return;
    if (errno != ENOSYS && errno != EINVAL && errno != ESPIPE) Fail("sync", _path);
  }

  const std::string _path;
  const osa::Descriptor _descriptor;
  bool _timeIsNew = false;
  uint64_t _writtenOutBegin = 0;  // the last piece that is brought to the disk, the writer's
  uint64_t _writtenOutEnd = 0;
};

// Until the file's end, which the size is only a guess of.
bool ReadAll(int descriptor, size_t size, std::string& bytes) {
  bytes.resize(size + 1);
  size_t used = 0;
  while (true) {
    const ssize_t count = Retry([&] { return read(descriptor, bytes.data() + used, bytes.size() - used); });
    if (count < 0) return false;
    used += static_cast<size_t>(count);
    if (count == 0) break;
    if (used == bytes.size()) bytes.resize(2 * used);
  }
  bytes.resize(used);
  return true;
}

// Until the file's end, which the size is only a guess of. False: reading failed.
bool HandOver(int descriptor, size_t size, const FileSystem::OnPiece& onPiece) {
  std::string piece(kPieceBytes, '\0');
  size_t used = 0;  // of a line whose end is still to come
  while (true) {
    const ssize_t count = Retry([&] { return read(descriptor, piece.data() + used, piece.size() - used); });
    if (count < 0) return false;
    const std::string_view bytes(piece.data(), used + static_cast<size_t>(count));
    const size_t ended = count == 0 ? bytes.size() : bytes.rfind('\n') + 1;
    if ((ended > 0 && !onPiece(bytes.substr(0, ended))) || count == 0) return true;
    used = bytes.size() - ended;
    std::memmove(piece.data(), piece.data() + ended, used);
    if (used == piece.size()) piece.resize(std::max(2 * used, size + 1));
  }
}

// How a file begins and ends that is too large to be read.
void ReadEnds(int descriptor, off_t size, std::string& bytes) {
  for (const off_t begin : {off_t{0}, size - static_cast<off_t>(kEndBytes)}) {
    std::string part(kEndBytes, '\0');
    const ssize_t count = Retry([&] { return pread(descriptor, part.data(), part.size(), begin); });
    bytes.append(part, 0, count > 0 ? static_cast<size_t>(count) : 0);
  }
}

std::string DescribeKind(mode_t mode) {
  const char* const kind = S_ISDIR(mode)                    ? "directory"
                           : S_ISCHR(mode) || S_ISBLK(mode) ? "device"
                           : S_ISFIFO(mode)                 ? "pipe"
                           : S_ISSOCK(mode)                 ? "socket"
                                                            : "special file";
  return std::string("it is a ") + kind + ", not a regular file";
}

void NoteError(int error, FileContent& content) {
  content.exists = error != ENOENT && error != ENOTDIR;
  if (!content.exists) return;
  content.error = error;
  content.problem = std::strerror(error);
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

class SystemFiles : public FileSystem {
 public:
  std::unique_ptr<File> Create(const std::string& path) override {
    Remove(path);
    return std::make_unique<SystemFile>("create", path, O_CREAT | O_EXCL);
  }

  std::unique_ptr<File> Open(const std::string& path) override { return std::make_unique<SystemFile>("open", path, 0); }

  FileContent Read(const std::string& path) override { return DoRead(path, nullptr); }

  FileContent ReadPieces(const std::string& path, const OnPiece& onPiece) override {
    FileContent content = DoRead(path, &onPiece);
    if (!content.bytes.empty()) onPiece(std::exchange(content.bytes, {}));
    return content;
  }

  std::string ReadPart(const std::string& path, uint64_t offset, size_t bytes) override {
    const osa::Descriptor opened = OpenOrFail("open", path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
    std::string part(bytes, '\0');
    size_t used = 0;
    while (used < bytes) {
      const auto at = static_cast<off_t>(offset + used);
      const ssize_t count = Retry([&] { return pread(opened.Get(), part.data() + used, bytes - used, at); });
      if (count < 0) Fail("read", path);
      if (count == 0) break;
      used += static_cast<size_t>(count);
    }
    part.resize(used);
    return part;
  }

  void Rename(const std::string& from, const std::string& to) override {
    if (std::rename(from.c_str(), to.c_str()) != 0) Fail("replace", to);
  }

  void Link(const std::string& from, const std::string& to) override {
    if (link(from.c_str(), to.c_str()) != 0) Fail("link", to);
  }

  void Remove(const std::string& path) override {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) Fail("remove", path);
  }

  bool Exists(const std::string& path) override {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
  }

  std::vector<std::string> FindNames(const std::string& begin) override {
    const size_t nameBegin = begin.rfind('/') + 1;  // 0 when there is none
    const std::string name = begin.substr(nameBegin);
    std::vector<std::string> paths;
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir(DirectoryOf(begin).c_str()));
    if (!directory) Fail("list directory", DirectoryOf(begin));
    while (const dirent* const entry = readdir(directory.get())) {
      if (std::string_view(entry->d_name).substr(0, name.size()) != name) continue;
      paths.push_back(begin.substr(0, nameBegin) + entry->d_name);
    }
    return paths;
  }

  void Sync(const std::string& path) override {
    const osa::Descriptor opened = OpenOrFail("open", path, O_RDONLY | O_NONBLOCK);
    if (Retry([&] { return fsync(opened.Get()); }) != 0) Fail("sync", path);
  }

  // Some file systems can't sync a directory and say EINVAL; their renames are as durable as they get.
  void SyncDirectoryOf(const std::string& path) override {
    const std::string directory = DirectoryOf(path);
    const osa::Descriptor opened = OpenOrFail("open directory", directory, O_RDONLY | O_DIRECTORY);
    if (Retry([&] { return fsync(opened.Get()); }) != 0 && errno != EINVAL) Fail("sync directory", directory);
  }

 private:
  // What is no file is not opened: that could wait for a pipe's writer, or start a device. onPiece: may be null.
  static FileContent DoRead(const std::string& path, const OnPiece* onPiece) {
    FileContent content;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
      NoteError(errno, content);
      return content;
    }
    content.exists = true;
    content.isRegular = S_ISREG(status.st_mode);
    if (content.isRegular) {
      ReadFile(path, onPiece, content);
    } else {
      content.problem = DescribeKind(status.st_mode);
    }
    return content;
  }

  // Another thing may stand there by now.
  static void ReadFile(const std::string& path, const OnPiece* onPiece, FileContent& content) {
    const osa::Descriptor file(Retry([&] { return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
    struct stat status {};
    if (file.Get() < 0 || fstat(file.Get(), &status) != 0) return NoteError(errno, content);
    content.modificationTime = status.st_mtim.tv_sec * kNanosecondsInASecond + status.st_mtim.tv_nsec;
    const auto size = static_cast<size_t>(status.st_size);
    if (status.st_size > kMaxBytes) {
      content.problem = "it is too large: " + std::to_string(status.st_size) + " bytes";
      ReadEnds(file.Get(), status.st_size, content.bytes);
    } else if (!(onPiece ? HandOver(file.Get(), size, *onPiece) : ReadAll(file.Get(), size, content.bytes))) {
      NoteError(errno, content);
      content.bytes.clear();
    }
  }
};

}  // namespace

void RemoveQuietly(FileSystem& files, const std::string& path) {
  try {
    files.Remove(path);
  } catch (const std::exception& exception) {
    core::Logger::GetLogger("UserSettings")->Trace("%s", exception.what());
  }
}

FileSystem& GetSystemFiles() {
  static SystemFiles files;
  return files;
}

}  // namespace tavix::daemon
