#include "programs/server/persistence/StartReads.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <thread>

namespace tavix::daemon {

namespace {

using Reason = UserSettingsRefused::Reason;

constexpr std::chrono::milliseconds kPauses[] = {std::chrono::milliseconds(100), std::chrono::milliseconds(200),
                                                 std::chrono::milliseconds(400)};

FileContent TryToRead(const std::function<FileContent()>& read) {
  try {
    return read();
  } catch (const std::bad_alloc&) {
    FileContent content;
    content.exists = true;
    content.error = ENOMEM;
    content.problem = "Cannot allocate memory";
    return content;
  }
}

[[noreturn]] void Refuse(Reason reason, const std::string& name, const std::string& problem) {
  throw UserSettingsRefused(reason, "Failed to read " + name + ": " + problem);
}

}  // namespace

FileContent ReadAtStart(FileSystem& files, const std::string& path) {
  return ReadAtStart("'" + path + "'", [&] { return files.Read(path); });
}

FileContent ReadAtStart(const std::string& name, const std::function<FileContent()>& read) {
  FileContent content = TryToRead(read);
  for (const std::chrono::milliseconds pause : kPauses) {
    if (content.error == 0) return content;
    std::this_thread::sleep_for(pause);
    content = TryToRead(read);
  }
  switch (content.error) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      Refuse(Reason::kNoResources, name, content.problem);
    case EACCES:
    case EPERM:
      Refuse(Reason::kNoRights, name, content.problem);
    case ELOOP:
    case ENAMETOOLONG:
      Refuse(Reason::kNotOurs, name, content.problem);
    default:
      return content;  // none at all, or an error of the disk: the caller looks for another file to use
  }
}

}  // namespace tavix::daemon
