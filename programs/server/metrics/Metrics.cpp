#include "programs/server/metrics/Metrics.h"

#include <ctime>

#include "programs/common/MetricsText.h"
#include "programs/server/metrics/ProcessFigures.h"
#include "tavix/settings/server/ClientHandler.h"

namespace tavix::daemon {

using programs::MetricsText;
using settings::server::ClientHandler;
using settings::server::SettingsManager;

namespace {

void AddProcess(MetricsText& text, const Counters& counters) {
  const ProcessFigures figures = ReadProcessFigures();
  text.BeginGauge("build_info", "Which program this is.");
  text.Add(1ull, {{"version", TAVIX_VERSION}});
  text.BeginGauge("start_time_seconds", "When the daemon started, in seconds since the epoch, as the clock was then.");
  text.Add(static_cast<unsigned long long>(counters.startTime));
  text.BeginGauge("resident_memory_bytes", "Memory that is not swapped out.");
  text.Add(figures.residentBytes);
  text.BeginGauge("open_descriptors", "Descriptors that are open.");
  text.Add(figures.descriptors);
}

template <class Reason, size_t count>
void AddReasons(MetricsText& text, const std::array<Counter, count>& counters) {
  for (size_t i = 0; i < count; ++i) text.Add(counters[i].Get(), {{"reason", NameOf(static_cast<Reason>(i))}});
}

void AddConnections(MetricsText& text, const Counters& counters) {
  text.BeginGauge("clients", "Clients that are connected.");
  text.Add(counters.clients.Get());
  text.BeginCounter("connections_total", "Connections that were taken.");
  text.Add(counters.accepted.Get());
  text.BeginCounter("connections_refused_total", "Connections that were not taken.");
  AddReasons<Refusal>(text, counters.refused);
  text.BeginCounter("connections_cut_total", "Connections that the daemon ended.");
  AddReasons<CutReason>(text, counters.cut);
}

void AddCommands(MetricsText& text) {
  const ClientHandler::Statistics statistics = ClientHandler::ReadStatistics();
  text.BeginCounter("commands_total", "Commands that were carried out.");
  for (const auto& command : statistics.commands) text.Add(command.count, {{"command", command.name}});
  text.BeginCounter("command_seconds_total", "Time that commands took.");
  for (const auto& command : statistics.commands) text.Add(command.seconds, {{"command", command.name}});
  text.BeginCounter("unknown_commands_total", "Lines that were no command.");
  text.Add(statistics.unknown);
  text.BeginCounter("subscriptions_refused_total", "Requests that would have passed a bound of subscriptions.");
  text.Add(statistics.refusedSubscriptions);
  text.BeginCounter("notifications_total", "Notices of a change that were written to clients.");
  text.Add(statistics.notices);
}

void AddLayers(MetricsText& text, const Counters& counters, const SettingsManager& manager) {
  const SettingsManager::Sizes sizes = manager.GetSizes();
  text.BeginGauge("groups", "Groups of a layer; effective is what readers see.");
  text.Add(counters.defaultGroups.Get(), {{"layer", "defaults"}});
  text.Add(static_cast<unsigned long long>(sizes.userGroups), {{"layer", "user"}});
  text.Add(counters.restrictedGroups.Get(), {{"layer", "restricted"}});
  text.Add(static_cast<unsigned long long>(sizes.allGroups), {{"layer", "effective"}});
  text.BeginGauge("keys", "Keys of a layer.");
  text.Add(counters.defaultKeys.Get(), {{"layer", "defaults"}});
  text.Add(static_cast<unsigned long long>(sizes.userKeys), {{"layer", "user"}});
  text.Add(counters.restrictedKeys.Get(), {{"layer", "restricted"}});
  text.Add(static_cast<unsigned long long>(sizes.allKeys), {{"layer", "effective"}});
}

void AddStore(MetricsText& text, const Counters& counters, const SettingsManager& manager) {
  text.BeginGauge("store_bytes", "Memory that the settings take, about.");
  text.Add(static_cast<unsigned long long>(manager.GetApproximateBytes()));
  text.BeginCounter("changes_refused_total", "Changes that were not made, for a bound of the store.");
  text.Add(counters.refusedByFullStore.Get(), {{"reason", "store_full"}});
  text.Add(counters.refusedByDeletedPatterns.Get(), {{"reason", "deleted_patterns"}});
}

// since: in seconds since the epoch; 0: never.
unsigned long long AgeOf(unsigned long long since) {
  const auto now = static_cast<unsigned long long>(std::time(nullptr));
  return since == 0 || now < since ? 0 : now - since;
}

void AddSaves(MetricsText& text, const Counters& counters) {
  text.BeginCounter("saves_total", "Attempts to save the user settings.");
  text.Add(counters.saved.Get(), {{"result", "ok"}});
  text.Add(counters.notSaved.Get(), {{"result", "failed"}});
  text.BeginGauge("last_save_time_seconds", "When the user settings were last saved, since the epoch; 0: not yet.");
  text.Add(counters.lastSave.Get());
  text.BeginGauge("unsaved_seconds", "Age of the oldest change that the disk lacks; 0: there is none.");
  text.Add(AgeOf(counters.unsavedSince.Get()));
  text.BeginGauge("user_file_bytes", "Size of the user settings' file as it was last loaded or saved.");
  text.Add(counters.userFileBytes.Get());
}

}  // namespace

std::string ComposeMetrics(const Counters& counters, const SettingsManager& manager) {
  MetricsText text;
  AddProcess(text, counters);
  AddConnections(text, counters);
  AddCommands(text);
  AddLayers(text, counters, manager);
  AddStore(text, counters, manager);
  AddSaves(text, counters);
  return text.GetText();
}

}  // namespace tavix::daemon
