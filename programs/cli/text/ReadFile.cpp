#include "programs/cli/text/ReadFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "programs/cli/text/Words.h"
#include "programs/common/client/Backup.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs::cli {

namespace {

[[noreturn]] void Fail(const char* what, const std::string& path) {
  throw Failure(kExitUsage, std::string("failed to ") + what + " '" + path + "': " + std::strerror(errno));
}

// Room for what a file holds: a text that grows step by step takes up to three times as much meanwhile.
void ReserveForFile(int descriptor, std::string& text) {
  struct stat status {};
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) text.reserve(static_cast<size_t>(status.st_size) + 1);
}

// Reads to the end. path: what an error text calls it.
std::string ReadAll(int descriptor, const std::string& path) {
  std::string text;
  ReserveForFile(descriptor, text);
  char part[64 * 1024];
  while (true) {
    const ssize_t count = read(descriptor, part, sizeof part);
    if (count == 0) return text;
    if (count > 0) {
      text.append(part, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      Fail("read", path);
    }
  }
}

}  // namespace

std::string ReadFile(const std::string& path) {
  if (path == "-") return ReadAll(STDIN_FILENO, path);
  const osa::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) Fail("open", path);
  return ReadAll(file.Get(), path);
}

SettingsFile ReadSettingsFile(const std::string& path) {
  const std::string text = ReadFile(path);
  SettingsFile file;
  file.name = path == "-" ? "standard input" : path;
  file.covered = ReadCoverage(text);
  file.isJson = LooksLikeJson(text);
  file.isCutOff = IsCutOff(text);
  file.settings = ParseDocument(text, file.name);
  return file;
}

std::set<std::string> FindSelection(const SettingsFile& file, const std::vector<std::string>& words) {
  if (!words.empty() || file.covered.empty()) return ParseSelection(words);
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(file.covered);
  std::set<std::string> covered;
  matcher.GetMatchingGroups(file.settings, covered);
  for (const auto& [group, keys] : file.settings) {
    if (covered.count(group) != 0 || group == kDeletedGroups) continue;
    throw Failure(kExitUsage,
                  "'" + file.name + "' holds '" + SpellName(group) + "', and says that it covers others alone",
                  "name the groups that are meant");
  }
  return file.covered;
}

}  // namespace tavix::programs::cli
