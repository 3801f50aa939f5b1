#include <algorithm>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/session/Latency.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/text/UtcTime.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Figures.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"
#include "tavix/core/MemoryStream.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

constexpr char kCut[] = "cut.";

bool IsNumber(const std::string& value) {
  return !value.empty() && std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string Find(const Figures& figures, const std::string& name) {
  const auto found = figures.find(name);
  return found == figures.end() ? std::string() : found->second;
}

// What the server gives as seconds since the epoch.
std::string FindTime(const Figures& figures, const std::string& name) {
  const std::string value = Find(figures, name);
  if (!IsNumber(value)) return SpellValue(value);
  const std::chrono::seconds sinceEpoch(std::strtoll(value.c_str(), nullptr, 10));
  return ShowSeconds(std::chrono::system_clock::time_point(sinceEpoch));
}

// Prints the figures that there are: an older server may lack some.
class StatusPrinter {
 public:
  // Both outlive this.
  StatusPrinter(Console& console, const Figures& figures) : _console(console), _figures(figures) {}

  void Print() const {
    PrintLine("version", SpellValue(Find(_figures, "version")));
    PrintLine("started", FindTime(_figures, "started"));
    PrintLine("clients", Find(_figures, "clients"));
    PrintLine("subscriptions", Find(_figures, "subscriptions"));
    PrintLayers("groups", "groups");
    PrintLayers("settings", "keys");
    const std::string bytes = Find(_figures, "store-bytes");
    if (!bytes.empty()) PrintLine("memory", SpellValue(bytes) + " bytes");
    PrintKept();
    PrintCut();
  }

 private:
  void PrintLine(const std::string& label, const std::string& value) const {
    if (!value.empty()) PrintFigure(_console, label, value);
  }

  void PrintLayers(const std::string& label, const std::string& kind) const {
    PrintLine(label, Find(_figures, kind + ".effective"));
    for (const char* layer : {"defaults", "user", "restricted"})
      PrintLine(std::string("  ") + layer, Find(_figures, kind + "." + layer));
  }

  void PrintKept() const {
    const std::string kept = Find(_figures, "kept");
    if (kept == "false") return PrintLine("kept in", "nowhere: changes are gone when the server ends");
    PrintLine("kept in", SpellValue(Find(_figures, "user-settings")));
    PrintLine("durability", SpellValue(Find(_figures, "durability")));
    PrintSaved();
    PrintLine("last save", FindTime(_figures, "last-save"));
    PrintLine("failed saves", Find(_figures, "failed-saves"));
  }

  void PrintSaved() const {
    const std::string saved = Find(_figures, "saved");
    if (saved.empty() || saved == "true") return PrintLine("saved", saved.empty() ? "" : "yes");
    const std::string since = FindTime(_figures, "unsaved-since");
    const std::string failure = Find(_figures, "failure");
    PrintLine("saved",
              "no" + (since.empty() ? "" : ", since " + since) + (failure.empty() ? "" : ": " + SpellValue(failure)));
  }

  // The reasons for which there was any.
  void PrintCut() const {
    unsigned long long all = 0;
    std::map<std::string, std::string> reasons;
    for (auto figure = _figures.lower_bound(kCut); figure != _figures.end() && figure->first.rfind(kCut, 0) == 0;
         ++figure) {
      const unsigned long long count = std::strtoull(figure->second.c_str(), nullptr, 10);
      all += count;
      if (count > 0) reasons[figure->first.substr(sizeof kCut - 1)] = figure->second;
    }
    if (_figures.count("clients") == 0) return;
    PrintLine("clients cut", std::to_string(all));
    for (const auto& [reason, count] : reasons) PrintLine("  " + SpellValue(reason), count);
  }

  Console& _console;
  const Figures& _figures;
};

int PrintServer(Context& context) {
  Session& session = context.GetSession();
  const double latency = MeasureLatency(session);
  const Figures figures = session.GetServerInfo();
  Console& console = context.GetConsole();
  if (context.PrintsJson()) {
    console.Print(Pretty(ReportServer(session.GetAddress(), latency, figures)));
    return kExitDone;
  }
  PrintFigure(console, "server", session.GetAddress());
  PrintFigure(console, "latency", ShowMilliseconds(latency));
  if (figures.empty()) PrintFigure(console, "version", "unknown: the server is too old to report on itself");
  StatusPrinter(console, figures).Print();
  PrintFigure(console, "command", TAVIX_VERSION);
  return kExitDone;
}

struct FileStatus {
  size_t groups = 0;
  size_t settings = 0;
  core::CountingOstream text;
};

// A file has no server to report on it: it is read.
int PrintFile(Context& context) {
  Session& session = context.GetSession();
  const double latency = MeasureLatency(session);
  FileStatus status;
  session.GetEach({"*"}, [&](const IniFile& part) {
    ++status.groups;
    status.settings += CountSettings(part);
    part.SaveToStream(status.text);
  });
  Console& console = context.GetConsole();
  if (context.PrintsJson()) {
    console.Print(Pretty({{"server", NameToJson(session.GetAddress())},
                          {"reachable", true},
                          {"latency_ms", latency},
                          {"groups", status.groups},
                          {"restricted_groups", 0},
                          {"user_groups", status.groups},
                          {"settings", status.settings},
                          {"bytes", status.text.GetCount()},
                          {"version", TAVIX_VERSION}}));
    return kExitDone;
  }
  PrintFigure(console, "server", session.GetAddress());
  PrintFigure(console, "latency", ShowMilliseconds(latency));
  PrintFigure(console, "groups", std::to_string(status.groups));
  PrintFigure(console, "settings", std::to_string(status.settings));
  PrintFigure(console, "size", std::to_string(status.text.GetCount()) + " bytes");
  PrintFigure(console, "command", TAVIX_VERSION);
  return kExitDone;
}

int PrintStatus(Context& context) {
  context.RequireOutput({Output::kJson});
  return context.GetOptions().local.empty() ? PrintServer(context) : PrintFile(context);
}

}  // namespace

void AddStatus(CommandLine& line) {
  line.Add("status", "Tell how the server is, what it holds, and whether changes are saved", PrintStatus);
}

}  // namespace tavix::programs::cli
