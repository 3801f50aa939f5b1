#include "programs/cli/session/BridgeSocket.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "tavix/osa/ConnectEndpoint.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/EndpointText.h"
#include "tavix/osa/ServiceEndpoint.h"
#include "tavix/osa/Time.h"

namespace tavix::programs::cli {

namespace {

using std::chrono::milliseconds;

constexpr char kBegin[] = "bridge-";
constexpr char kEnd[] = ".sock";
constexpr size_t kBeginSize = sizeof kBegin - 1;
constexpr size_t kEndSize = sizeof kEnd - 1;
constexpr size_t kMaxAnswer = 16 * 1024 * 1024;
constexpr int kMaxSilences = 6;  // that an answer may take in all
constexpr char kMoreTime[] = "--timeout gives it more time";

[[noreturn]] void Fail(ExitCode code, const std::string& name, const std::string& problem,
                       const std::string& hint = std::string()) {
  throw Failure(code, "bridge '" + name + "'" + problem, hint);
}

// The bridges themselves take no other names.
bool IsName(const std::string& name) {
  constexpr char kBytes[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
  return !name.empty() && name.front() != '.' && name.find_first_not_of(kBytes) == std::string::npos;
}

std::string PathOf(const std::string& runtime, const std::string& name) {
  if (!IsName(name)) throw Failure(kExitUsage, "'" + SpellValue(name) + "' is no name of a bridge");
  std::string path = runtime + "/" + kBegin + name + kEnd;
  if (!osa::IsSocketPath(path))
    Fail(kExitUsage, name, ": the path of its socket is too long: '" + SpellValue(path) + "'");
  return path;
}

osa::Descriptor Connect(const std::string& name, const std::string& path, milliseconds timeout) {
  osa::ServiceEndpoint endpoint;
  endpoint.path = path;
  const osa::ConnectResult result =
      ConnectEndpoint(endpoint, osa::Deadline(static_cast<unsigned int>(timeout.count())));
  if (result.descriptor >= 0) return osa::Descriptor(result.descriptor);
  const bool isAbsent = result.error == ENOENT || result.error == ECONNREFUSED;
  Fail(kExitNoServer, name,
       std::string(isAbsent ? " is not running: '" : " can't be asked: '") + SpellValue(path) + "': " + result.reason);
}

// False at the end of the connection.
bool ReceiveMore(const osa::Descriptor& socket, const std::string& name, std::string& answer) {
  char part[64 * 1024];
  const ssize_t count = recv(socket.Get(), part, sizeof part, 0);
  if (count > 0) answer.append(part, static_cast<size_t>(count));
  if (count >= 0) return count > 0;
  if (errno == EINTR) return true;
  if (errno == EAGAIN) Fail(kExitNoServer, name, " keeps silent", kMoreTime);
  Fail(kExitNoServer, name, std::string(" was lost: ") + std::strerror(errno));
}

}  // namespace

std::set<std::string> FindBridges(const std::string& runtime) {
  std::set<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(runtime.c_str()), closedir);
  if (!folder && errno != ENOENT)
    throw Failure(kExitNoServer, "failed to read '" + SpellValue(runtime) + "': " + std::strerror(errno));
  for (const dirent* entry = nullptr; folder && (entry = readdir(folder.get())) != nullptr;) {
    const std::string file = entry->d_name;
    const bool isSocket = file.size() > kBeginSize + kEndSize && file.rfind(kBegin, 0) == 0 &&
                          file.compare(file.size() - kEndSize, kEndSize, kEnd) == 0;
    const std::string name = isSocket ? file.substr(kBeginSize, file.size() - kBeginSize - kEndSize) : std::string();
    if (IsName(name)) names.insert(name);
  }
  return names;
}

std::string AskBridge(const std::string& runtime, const std::string& name, const std::string& request,
                      milliseconds timeout) {
  const osa::Descriptor socket = Connect(name, PathOf(runtime, name), timeout);
  const timeval limit{timeout.count() / 1000, timeout.count() % 1000 * 1000};
  setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const std::string line = request + "\n";
  // One that does not take so little hangs up, which is noticed below.
  (void)send(socket.Get(), line.data(), line.size(), MSG_NOSIGNAL);
  std::string answer;
  const auto end = std::chrono::steady_clock::now() + kMaxSilences * timeout;
  while (ReceiveMore(socket, name, answer)) {
    if (std::chrono::steady_clock::now() > end) Fail(kExitNoServer, name, " is too slow", kMoreTime);
    if (answer.size() > kMaxAnswer) Fail(kExitBadInput, name, ": its answer is longer than 16 MiB");
  }
  if (answer.empty() || answer.back() != '\n') Fail(kExitNoServer, name, " hung up before the end of its answer");
  return answer;
}

}  // namespace tavix::programs::cli
