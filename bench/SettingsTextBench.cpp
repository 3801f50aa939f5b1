// Settings text: parsing and saving it, and the memory that a document takes.

#include <glib.h>
#include <ini.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "bench/BareMap.h"
#include "bench/Benches.h"
#include "bench/Micro.h"
#include "bench/ProcessMemory.h"
#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

using core::IniFile;
using Frequency = Suite::Frequency;

constexpr int kKeys = 10;
constexpr double kParseAim = 0.75;
constexpr double kSaveAim = 0.65;
constexpr char kBareMap[] = "bare map, buffer";

struct FreeKeyFile {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, FreeKeyFile>;

IniFile ParseString(const std::string& text) {
  IniFile document;
  document.LoadFromString(text);
  return document;
}

IniFile ParseStream(const std::string& text) {
  core::ViewIstream in;
  in.SetText(text);
  IniFile document;
  document.LoadFromStream(in);
  return document;
}

KeyFile ParseKeyFile(const std::string& text) {
  KeyFile file(g_key_file_new());
  if (!g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_KEEP_COMMENTS, nullptr))
    throw osa::Exception("GKeyFile can't read the text");
  return file;
}

BareMap ParseInih(const std::string& text) {
  BareMap document;
  const auto add = [](void* user, const char* group, const char* key, const char* value) {
    (*static_cast<BareMap*>(user))[group][key] = value;
    return 1;
  };
  if (ini_parse_string(text.c_str(), add, &document) != 0) throw osa::Exception("inih can't read the text");
  return document;
}

std::string SaveString(const IniFile& document) {
  core::StringOstream out;
  document.SaveToStream(out);
  return out.GetText();
}

std::string SaveStandardStream(const IniFile& document) {
  std::ostringstream out;
  document.SaveToStream(out);
  return out.str();
}

std::string SaveBareMap(const BareMap& document) {
  std::string text;
  AppendBareMap(document, text);
  return text;
}

// The text that GLib makes, without a copy of it.
std::unique_ptr<char, void (*)(void*)> SaveKeyFile(const KeyFile& file) {
  return {g_key_file_to_data(file.get(), nullptr, nullptr), g_free};
}

// Freeing the document is not part of parsing.
template <class Parse>
void MeasureParse(Recorder& recorder, const FigureName& name, int groups, Parse parse) {
  if (!recorder.Wants(name)) return;
  const std::string text = SettingsText(groups, kKeys);
  const auto body = [&](benchmark::State& state) {
    while (state.KeepRunning()) {
      const double start = ProcessorSeconds();
      const auto document = parse(text);
      state.SetIterationTime(ProcessorSeconds() - start);
      benchmark::DoNotOptimize(&document);
    }
  };
  MeasureMicro(recorder, name, kMegabytesPerSecond, static_cast<double>(text.size()), body, Counted::kByHand);
}

template <class Parse, class Save>
void MeasureSave(Recorder& recorder, const FigureName& name, int groups, Parse parse, Save save) {
  if (!recorder.Wants(name)) return;
  const std::string text = SettingsText(groups, kKeys);
  const auto document = parse(text);
  MeasureCall(recorder, name, kMegabytesPerSecond, static_cast<double>(text.size()),
              [&] { benchmark::DoNotOptimize(save(document)); });
}

template <class Parse>
void MeasureMemory(Recorder& recorder, const FigureName& name, int groups, Parse parse) {
  if (!recorder.Wants(name)) return;
  const std::string text = SettingsText(groups, kKeys);
  const double before = AnonymousMebibytes();
  const auto document = parse(text);
  recorder.Add(name, kMebibytes, AnonymousMebibytes() - before);
}

// Each library is a bench of its own: its documents would leave holes in the heap of the next.
void AddParseBenches(Suite& suite, const std::string& item, int groups) {
  const auto add = [&](const char* peer, const char* variant, auto parse, auto frequency) {
    const FigureName name{item, peer, variant};
    suite.Add(
        {item}, [=](Recorder& recorder) { MeasureParse(recorder, name, groups, parse); }, frequency);
  };
  add(kFloor, kBareMap, ParseBareMap, Frequency::kEveryRound);
  add(kOurs, "LoadFromStream", ParseStream, Frequency::kEveryRound);
  add(kOurs, "LoadFromString", ParseString, Frequency::kFullRuns);
  add("glib", "GKeyFile", ParseKeyFile, Frequency::kFullRuns);
  add("inih", "into a map of maps", ParseInih, Frequency::kFullRuns);
  for (const char* variant : {"LoadFromStream", "LoadFromString"}) {
    suite.Compare({item, kOurs, variant}, {item, kFloor, kBareMap}, kParseAim);
    suite.Compare({item, kOurs, variant}, {item, "glib", "GKeyFile"});
    suite.Compare({item, kOurs, variant}, {item, "inih", "into a map of maps"});
  }
}

void AddSaveBenches(Suite& suite, const std::string& item, int groups) {
  const auto add = [&](const char* peer, const char* variant, auto parse, auto save, auto frequency) {
    const FigureName name{item, peer, variant};
    suite.Add(
        {item}, [=](Recorder& recorder) { MeasureSave(recorder, name, groups, parse, save); }, frequency);
  };
  add(kFloor, kBareMap, ParseBareMap, SaveBareMap, Frequency::kEveryRound);
  add(kOurs, "SaveToStream", ParseString, SaveString, Frequency::kEveryRound);
  add(kOurs, "SaveToStream, ostringstream", ParseString, SaveStandardStream, Frequency::kFullRuns);
  add("glib", "GKeyFile", ParseKeyFile, SaveKeyFile, Frequency::kFullRuns);
  for (const char* variant : {"SaveToStream", "SaveToStream, ostringstream"}) {
    suite.Compare({item, kOurs, variant}, {item, kFloor, kBareMap}, kSaveAim);
    suite.Compare({item, kOurs, variant}, {item, "glib", "GKeyFile"});
  }
}

void AddMemoryBenches(Suite& suite, const std::string& item, int groups) {
  const auto add = [&](const char* peer, const char* variant, auto parse) {
    const FigureName name{item, peer, variant};
    suite.Add(
        {item}, [=](Recorder& recorder) { MeasureMemory(recorder, name, groups, parse); }, Frequency::kFewRounds);
    if (name.peer != kOurs) suite.Compare({item, kOurs, "IniFile"}, name);
  };
  add(kFloor, kBareMap, ParseBareMap);
  add(kOurs, "IniFile", ParseString);
  add("glib", "GKeyFile", ParseKeyFile);
}

}  // namespace

void AddSettingsTextBenches(Suite& suite) {
  const std::pair<const char*, int> sizes[] = {{"10", 10}, {"1k", 1000}, {"20k", 20000}};
  for (const auto& [size, groups] : sizes) {
    AddParseBenches(suite, std::string("ini-parse-") + size, groups);
    AddSaveBenches(suite, std::string("ini-save-") + size, groups);
  }
  AddMemoryBenches(suite, "ini-rss-20k", 20000);
}

}  // namespace tavix::bench
