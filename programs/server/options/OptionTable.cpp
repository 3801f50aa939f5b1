#include "programs/server/options/OptionTable.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "programs/server/options/OptionValues.h"

namespace tavix::daemon {

namespace {

using Kind = OptionEntry::Kind;
using Action = Options::Action;
using Apply = std::function<void(Options&, const std::string&)>;

// A half of what size_t holds, at most, so that two of them can be added.
constexpr auto kMaxLimit =
    static_cast<size_t>(std::min<uint64_t>(uint64_t{1} << 40, std::numeric_limits<size_t>::max() / 2));
constexpr unsigned long long kMaxWork = 1ull << 60;
constexpr size_t kMaxSeconds = 24 * 60 * 60;
constexpr size_t kMaxLoops = 64;
constexpr size_t kMaxTrials = 1024;
constexpr size_t kMaxCheckpoints = 1024;

template <class Member>
Apply Text(Member member) {
  return [member](Options& options, const std::string& value) { options.*member = value; };
}

Apply Append(LayerSources Options::*layer, std::vector<std::string> LayerSources::*list) {
  return [=](Options& options, const std::string& value) {
    RequireText(value);
    (options.*layer.*list).push_back(value);
  };
}

Apply Flag(bool Options::*member) {
  return [=](Options& options, const std::string& value) { options.*member = ParseFlag(value); };
}

Apply LogFlag(bool LogOptions::*member) {
  return [=](Options& options, const std::string& value) { options.log.*member = ParseFlag(value); };
}

Apply Number(size_t Options::*member, size_t most) {
  return [=](Options& options, const std::string& value) { options.*member = ParseNumber(value, most); };
}

// 0: none.
Apply NumberOrNone(size_t Options::*member, size_t max) {
  return [=](Options& options, const std::string& value) {
    options.*member = static_cast<size_t>(ParseLongNumber(value, 0, max));
  };
}

Apply Limit(size_t Limits::*limit) {
  return [=](Options& options, const std::string& value) { options.limits.*limit = ParseNumber(value, kMaxLimit); };
}

// 0: none.
template <class Number>
Apply LimitOrNone(Number Limits::*limit, unsigned long long max) {
  return [=](Options& options, const std::string& value) {
    options.limits.*limit = static_cast<Number>(ParseLongNumber(value, 0, max));
  };
}

Apply Time(size_t Limits::*limit) {
  return [=](Options& options, const std::string& value) { options.limits.*limit = ParseNumber(value, kMaxSeconds); };
}

Apply Do(Action action) {
  return [=](Options& options, const std::string&) { options.action = action; };
}

void SetConfiguration(Options& options, const std::string& value) {
  RequireText(value);
  options.configuration = value;
  options.configurationWasGiven = true;
}

void AddListen(Options& options, const std::string& value) {
  options.listen.push_back(ParseListenAddress(value));
}

void SetUserSettings(Options& options, const std::string& value) {
  RequireText(value);
  options.userSettings = value;
}

void SetHistory(Options& options, const std::string& value) {
  constexpr unsigned long long kMin = 16 * 1024;
  constexpr unsigned long long kMax = 64 * 1024 * 1024;
  const unsigned long long bytes = ParseLongNumber(value, 0, kMax);
  if (bytes > 0 && bytes < kMin) throw osa::Exception("expected 0, or a number from %llu to %llu", kMin, kMax);
  options.historyBytes = static_cast<size_t>(bytes);
}

void SetLogFile(Options& options, const std::string& value) {
  if (!value.empty() && value.front() != '/') throw osa::Exception("expected an absolute path");
  options.log.file = value;
}

// In the order of the help. A table, one entry an option: its length is that of what there is to say.
std::vector<OptionEntry> MakeTable() {
  return {
      {"", "config", "FILE", Kind::kValue, false,
       "the configuration file: a group [Server] whose keys are these options without their dashes. What the command "
       "line says beats it. Default: /etc/tavix-settings/server.conf, which may be absent",
       SetConfiguration},
      {"", "check", "", Kind::kCommand, false, "load everything, say what was loaded and what is wrong, serve nothing",
       Do(Action::kCheck)},
      {"", "help", "", Kind::kCommand, false, "show this text, as -h does", Do(Action::kShowHelp)},
      {"", "version", "", Kind::kCommand, false, "show the version", Do(Action::kShowVersion)},

      {"Serving", "listen", "ADDRESS", Kind::kList, true,
       "serve on HOST:PORT, [V6]:PORT or unix:PATH; may be repeated. Port 0 lets the kernel pick. Sockets that a "
       "service manager passes are served instead. Default: 127.0.0.1:7211",
       AddListen},
      {"", "allow-remote", "", Kind::kFlag, true,
       "let --listen name an address that is not loopback. The protocol knows no passwords: whoever reaches the port "
       "may read everything and change most of it",
       Flag(&Options::allowRemote)},
      {"", "unix-mode", "MODE", Kind::kValue, true, "permissions of unix sockets, octal (0660)",
       [](Options& options, const std::string& value) { options.unixMode = ParseMode(value); }},
      {"", "unix-group", "GROUP", Kind::kValue, true,
       "group of unix sockets, a name or a number. Default: the daemon's own", Text(&Options::unixGroup)},
      {"", "allow-uid", "LIST", Kind::kList, true,
       "the users, by number and with commas, that unix sockets serve; others are refused. Default: all whom the "
       "permissions let in",
       [](Options& options, const std::string& value) { AppendUsers(value, options.allowedUsers); }},
      {"", "loops", "N", Kind::kValue, true, "threads that serve connections. Default: one a processor, two at most",
       Number(&Options::loops, kMaxLoops)},

      {"Settings", "defaults", "PATH", Kind::kList, true,
       "default settings: an ini file, or a directory whose *.ini are loaded in lexical order; may be repeated",
       Append(&Options::defaults, &LayerSources::paths)},
      {"", "defaults-dir", "DIR", Kind::kList, true,
       "a directory of drop-ins, loaded after --defaults; may be repeated. Files are loaded in the order of their "
       "names whatever their directory; of equal names the one in the later directory counts, and an empty file or a "
       "link to /dev/null switches the name off. Where neither is given: /usr/share/tavix-settings/defaults.d, "
       "/run/tavix-settings/defaults.d, /etc/tavix-settings/defaults.d",
       Append(&Options::defaults, &LayerSources::directories)},
      {"", "restricted", "PATH", Kind::kList, true,
       "restricted settings, which clients can't change; as --defaults. Only groups with Secure or Trusted in their "
       "names are: others can be changed until the next start",
       Append(&Options::restricted, &LayerSources::paths)},
      {"", "restricted-dir", "DIR", Kind::kList, true, "as --defaults-dir; the usual places are named restricted.d",
       Append(&Options::restricted, &LayerSources::directories)},
      {"", "user-settings", "FILE", Kind::kValue, true,
       "where the users' changes are kept; may not exist yet. Without it nothing is persisted", SetUserSettings},
      {"", "durability", "WHEN", Kind::kValue, true,
       "what a power cut may take back of them: always, nothing that anybody was shown; a time such as 250ms or 2s, "
       "what was changed in that time; none, what the system had not written yet (always)",
       [](Options& options, const std::string& value) { options.durability = ParseDurability(value); }},
      {"", "history", "BYTES", Kind::kValue, true,
       "keep who changed what in them, and what it was before, in so many bytes beside them, from 16 KiB to 64 MiB; 0: "
       "not at all (0)",
       SetHistory},
      {"", "checkpoints", "N", Kind::kValue, true,
       "with --history: copies of them under a name, which clients may have made beside them. 0: none (8)",
       NumberOrNone(&Options::checkpoints, kMaxCheckpoints)},
      {"", "trials", "N", Kind::kValue, true,
       "changes of them that may be on trial at once: each goes back by itself unless it is confirmed in time. 0: none "
       "(16)",
       NumberOrNone(&Options::trials, kMaxTrials)},
      {"", "stop-timeout", "S", Kind::kValue, true,
       "how long the daemon waits for the disk when it is ended; what is not saved then is lost (10)",
       Number(&Options::stopSeconds, kMaxSeconds)},

      {"Seeing inside", "log-level", "LEVEL", Kind::kValue, true,
       "error, warning, notice, information or trace (notice). Information adds who comes and who changes what, trace "
       "the values. SIGHUP has the four log options read again",
       [](Options& options, const std::string& value) { options.log.level = ParseLogLevel(value); }},
      {"", "log-stderr", "", Kind::kFlag, true, "log to standard error (true)", LogFlag(&LogOptions::standardError)},
      {"", "log-syslog", "", Kind::kFlag, true, "log to the system log (false)", LogFlag(&LogOptions::systemLog)},
      {"", "log-file", "FILE", Kind::kValue, true, "log to this file, which is rotated (none)", SetLogFile},
      {"", "metrics-file", "FILE", Kind::kValue, true,
       "keep this file filled with figures in Prometheus' text format (none)", Text(&Options::metricsFile)},
      {"", "metrics-interval", "S", Kind::kValue, true, "how often, in seconds (15)",
       Number(&Options::metricsSeconds, kMaxSeconds)},

      {"Bounds; a client beyond one is disconnected, a subscription beyond one refused", "max-connections", "N",
       Kind::kValue, true, "clients at a time (1024)", Limit(&Limits::connections)},
      {"", "max-subscriptions", "N", Kind::kValue, true, "names and patterns of one client (4096)",
       Limit(&Limits::subscriptions)},
      {"", "max-subscription-bytes", "BYTES", Kind::kValue, true, "of these (256 KiB)",
       Limit(&Limits::subscriptionBytes)},
      {"", "all-subscription-bytes", "BYTES", Kind::kValue, true, "of those of all clients together (16 MiB)",
       Limit(&Limits::allSubscriptionBytes)},
      {"", "max-alike-patterns", "N", Kind::kValue, true,
       "different patterns of all clients that are so alike that each has to be tried on the same names: neither what "
       "stands before the first star nor three bytes in a row tells them apart. 0: any number (4096)",
       LimitOrNone(&Limits::alikePatterns, kMaxLimit)},
      {"", "max-name", "BYTES", Kind::kValue, true,
       "of a group's name, a key, or a line of a list that a client sends; files may hold longer ones (4 KiB)",
       Limit(&Limits::nameBytes)},
      {"", "max-list", "N", Kind::kValue, true, "names and patterns of one request (131072)", Limit(&Limits::listed)},
      {"", "max-patterns", "N", Kind::kValue, true,
       "patterns of one request, but for subscriptions; each may be tried on every group (256)",
       Limit(&Limits::patterns)},
      {"", "max-work", "BYTES", Kind::kValue, true,
       "of group names that these patterns may have to be tried on: their number times the bytes of the names of all "
       "groups. 0: any (17179869184, for 256 patterns and a million groups with names of 64 bytes)",
       LimitOrNone(&Limits::work, kMaxWork)},
      {"", "max-line", "BYTES", Kind::kValue, true, "of one line that a client sends (16 MiB)",
       Limit(&Limits::lineBytes)},
      {"", "max-request", "BYTES", Kind::kValue, true, "of one request (64 MiB)", Limit(&Limits::requestBytes)},
      {"", "request-timeout", "S", Kind::kValue, true, "for an unfinished request (60)", Time(&Limits::requestSeconds)},
      {"", "all-requests", "BYTES", Kind::kValue, true,
       "of the unfinished requests of all clients together; the longest ends. Default: an eighth of the memory that "
       "the machine and the control group allow, from 4 to 256 MiB; here {}",
       Limit(&Limits::allRequestBytes), &Limits::allRequestBytes},
      {"", "max-store", "BYTES", Kind::kValue, true,
       "of all settings in memory, about; a change that would pass it is not made, and the client stays. Default: a "
       "quarter of the memory, as for --all-requests, from 4 to 256 MiB; here {}",
       Limit(&Limits::storeBytes), &Limits::storeBytes},
      {"", "max-backlog", "BYTES", Kind::kValue, true, "unread by a client that makes no progress (8 MiB) ...",
       Limit(&Limits::backlogBytes)},
      {"", "backlog-timeout", "S", Kind::kValue, true, "... for so long (10)", Time(&Limits::backlogSeconds)},
      {"", "hard-backlog", "BYTES", Kind::kValue, true, "unread by a client, whatever it does (256 MiB)",
       Limit(&Limits::hardBacklogBytes)},
      {"", "held-backlog", "BYTES", Kind::kValue, true, "for a client, but waiting for the disk (256 MiB)",
       Limit(&Limits::heldBacklogBytes)},
      {"", "all-backlogs", "BYTES", Kind::kValue, true,
       "unread by all clients, or waiting for the disk, together; the longest ends. Default: an eighth of the memory, "
       "as for --all-requests, from 4 to 512 MiB; here {}",
       Limit(&Limits::allBacklogBytes), &Limits::allBacklogBytes},
  };
}

}  // namespace

const std::vector<OptionEntry>& GetOptionTable() {
  static const std::vector<OptionEntry> table = MakeTable();
  return table;
}

const OptionEntry* FindOption(const std::string& name) {
  const std::vector<OptionEntry>& table = GetOptionTable();
  const auto found = std::find_if(table.begin(), table.end(), [&](const OptionEntry& one) { return one.name == name; });
  return found == table.end() ? nullptr : &*found;
}

}  // namespace tavix::daemon
