#include <string_view>

#include "programs/server/options/MemoryShares.h"
#include "programs/server/options/OptionTable.h"

namespace tavix::daemon {

namespace {

constexpr size_t kColumn = 26;
constexpr size_t kWidth = 80;

constexpr char kUsage[] =
    "Usage: tavix-settings-server [OPTION]...\n"
    "Keeps a device's settings and serves them to its processes.\n\n";

constexpr char kEnding[] =
    "\n"
    "SIGTERM and SIGINT end the daemon, SIGHUP has it read its log options again,\n"
    "SIGUSR1 has it log how often each command was handled.\n"
    "\n"
    "Exit status: 0 done; 64 usage; 69 an address can't be listened on, or the user\n"
    "settings are in use; 74 the last change could not be saved; 78 the configuration\n"
    "or a settings file can't be read or parsed.\n";

// Breaks "text" into lines that begin at the column; the first one's beginning stands already.
void AppendWrapped(std::string& out, size_t at, std::string_view text) {
  bool first = true;
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    if (!first && at + 1 + word.size() > kWidth) {
      out.append("\n").append(kColumn, ' ');
      at = kColumn;
    } else if (!first) {
      out += ' ';
      ++at;
    }
    out += word;
    at += word.size();
    first = false;
  }
  out += '\n';
}

// The bounds of memory with what they come to.
std::string DescribeOption(const OptionEntry& entry, const Limits& limits) {
  std::string help = entry.help;
  const size_t at = help.find("{}");
  if (entry.limit && at != std::string::npos) help.replace(at, 2, FormatSize(limits.*entry.limit));
  return help;
}

void AppendEntry(std::string& out, const OptionEntry& entry, const Limits& limits) {
  if (*entry.section) out.append("\n").append(entry.section).append(":\n");
  std::string beginning = std::string("  --") + entry.name;
  if (*entry.argument) beginning.append(" ").append(entry.argument);
  if (beginning.size() + 1 > kColumn) {
    out.append(beginning).append("\n").append(kColumn, ' ');
  } else {
    out.append(beginning).append(kColumn - beginning.size(), ' ');
  }
  AppendWrapped(out, kColumn, DescribeOption(entry, limits));
}

}  // namespace

std::string FormatHelp(const Limits& limits) {
  std::string help = kUsage;
  for (const OptionEntry& entry : GetOptionTable()) AppendEntry(help, entry, limits);
  return help + kEnding;
}

}  // namespace tavix::daemon
