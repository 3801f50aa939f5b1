#include "programs/cli/commands/Completer.h"

#include <sys/time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <set>
#include <utility>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/session/Bookings.h"
#include "programs/cli/session/BridgeSocket.h"
#include "programs/cli/terminal/Console.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/LogLevels.h"
#include "programs/common/client/Resources.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

using Words = std::vector<std::string>;
using Candidates = Completer::Candidates;

constexpr char kWord[] = "__complete";
constexpr int kLimit = 250;  // milliseconds

extern "C" void ExitAtAlarm(int) {
  _exit(kExitDone);
}

// Name resolution knows no limit of its own.
void LimitTime() {
  std::signal(SIGALRM, ExitAtAlarm);
  itimerval limit{};
  limit.it_value.tv_usec = kLimit * 1000;
  setitimer(ITIMER_REAL, &limit, nullptr);
}

const CLI::Option* FindOption(const CLI::App* app, const std::string& word) {
  for (; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      if (option->nonpositional() && option->check_name(word)) return option;
    }
  }
  return nullptr;
}

bool TakesValue(const CLI::Option* option) {
  return option != nullptr && option->get_items_expected_max() > 0;
}

Candidates SubCommandsOf(const CLI::App& app) {
  Candidates names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
    names.push_back({command->get_name(), command->get_description()});
  return names;
}

const CLI::App* FindCommand(const CLI::App& app, const std::string& word) {
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->check_name(word)) return command;
  }
  return nullptr;
}

Candidates OptionsOf(const CLI::App* app) {
  Candidates names;
  for (; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back({"--" + name, option->get_description()});
    }
  }
  return names;
}

// The name up to the next '/' behind what it begins with.
std::string PathOf(const std::string& name, const std::string& begin) {
  const size_t slash = name.find('/', begin.size());
  return slash == std::string::npos ? name : name.substr(0, slash + 1);
}

bool IsOneOf(const std::string& name, std::initializer_list<const char*> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

bool Completer::IsAsked(const Words& words) {
  return !words.empty() && words.front() == kWord;
}

int Completer::Run(const Words& words) {
  try {
    ReadWords(words);
    Complete();
    Console(_options).Flush();
  } catch (const std::exception&) {
    // No server, no candidates.
  }
  return kExitDone;
}

void Completer::ReadWords(const Words& words) {
  _command = &_line.GetApp();
  _options.timeout = kLimit / 1000.0;
  _options.quiet = true;
  if (words.size() > 1) _current = words.back();
  // The shells leave an opening quote where it is.
  if (!_current.empty() && (_current.front() == '\'' || _current.front() == '"')) _current.erase(0, 1);
  const auto end = words.end() - (words.size() > 1 ? 1 : 0);
  for (auto at = words.begin() + 1; at < end; ++at) {
    if (at->size() > 1 && at->front() == '-') {
      ReadOption(at, end);
    } else if (const CLI::App* command = FindCommand(*_command, *at)) {
      _command = command;
    } else {
      _positionals.push_back(*at);
    }
  }
}

// Steps over the option's value, too.
void Completer::ReadOption(Words::const_iterator& at, Words::const_iterator end) {
  const size_t equals = at->find('=');
  const CLI::Option* option = FindOption(_command, at->substr(0, equals));
  if (!TakesValue(option)) return;
  std::string value = equals == std::string::npos ? std::string() : at->substr(equals + 1);
  if (equals == std::string::npos && ++at < end) value = *at;
  if (at >= end) _pending = "--" + option->get_lnames().front();
  if (option->check_name("--server")) _options.server = value;
  if (option->check_name("--local")) _options.local = value;
  if (option->check_name("--runtime")) _bridgeRuntime = value;
}

void Completer::Complete() {
  if (!_pending.empty()) {
    CompleteOptionValue(_pending);
  } else if (_current.rfind("--", 0) == 0 && _current.find('=') != std::string::npos) {
    const size_t equals = _current.find('=');
    const std::string option = _current.substr(0, equals);
    _prefix = _current.substr(0, equals + 1);
    _current.erase(0, equals + 1);
    CompleteOptionValue(option);
  } else if (!_current.empty() && _current.front() == '-') {
    Offer(OptionsOf(_command));
  } else if (!SubCommandsOf(*_command).empty()) {
    Offer(SubCommandsOf(*_command));
  } else {
    CompletePositional();
  }
}

void Completer::CompleteOptionValue(const std::string& option) {
  if (option == "--output" || option == "-o") Offer(Words{"text", "ini", "json", "shell", "value"});
  if (option == "--color") Offer(Words{"auto", "always", "never"});
  if (option == "--local") OfferFiles();
  if (option == "--if") CompleteSettings();
  if (option == "--consumer" || option == "-c") CompleteConsumers();
  CompleteOptionOfBridge(option);
}

void Completer::CompleteOptionOfBridge(const std::string& option) {
  if (option == "--from") Offer(Words{"centre", "device"});
  if (option == "--name") {
    const std::set<std::string> names = FindBridges(_bridgeRuntime.empty() ? kBridgeRuntime : _bridgeRuntime);
    Offer(Words(names.begin(), names.end()));
  }
  if (option == "--runtime") OfferFiles();
}

void Completer::CompletePositional() {
  const std::string name = _command->get_name();
  if (IsOneOf(name, {"get", "watch", "unset", "wait", "set"})) {
    CompleteSettings();
  } else if (_command->get_parent() != &_line.GetApp()) {
    if (_command->get_parent()->get_name() == "resource") CompleteResources();
  } else if (IsOneOf(name, {"list", "show", "delete", "reset", "edit", "export"})) {
    Offer(ReadPaths(_current));
  } else if (IsOneOf(name, {"log", "blame"})) {
    if (_positionals.empty()) Offer(ReadPaths(_current));
  } else if (IsOneOf(name, {"rollback", "checkpoint", "confirm", "revert"})) {
    CompleteKept();
  } else if (IsOneOf(name, {"import", "diff"}) && _positionals.empty()) {
    OfferFiles();
  } else if (IsOneOf(name, {"search", "import", "diff"})) {
    if (!_positionals.empty()) Offer(ReadPaths(_current));
  } else if (name == "log-level") {
    Offer(_positionals.empty() ? ReadPaths(_current) : GetLogLevelNames());
  } else if (name == "help") {
    Offer(SubCommandsOf(_line.GetApp()));
  } else if (name == "completion") {
    Offer(Words{"bash", "zsh", "fish"});
  }
}

// "[group]key" behind a bracket; keys behind a group, and groups everywhere else.
void Completer::CompleteSettings() {
  if (!_current.empty() && _current.front() == '[') {
    CompleteBracketed();
    return;
  }
  const Words keys = _positionals.empty() ? Words() : ReadKeys(_positionals.back());
  Offer(keys.empty() ? ReadPaths(_current) : keys);
}

void Completer::CompleteBracketed() {
  const size_t close = _current.find(']');
  const std::string group = _current.substr(1, close - 1);
  Words words;
  if (close == std::string::npos) {
    for (const std::string& path : ReadPaths(_current.substr(1)))
      words.push_back("[" + path + (path.back() == '/' ? "" : "]"));
  } else {
    for (const std::string& key : ReadKeys(Unspell(group))) words.push_back("[" + group + "]" + key);
  }
  Offer(words);
}

void Completer::CompleteResources() {
  if (!_positionals.empty()) return;
  ReadStore([this](Session& session) {
    const core::IniFile read = ReadResources(session);
    const std::set<std::string> names = settings::ResourceFigures(read).GetResources();
    Offer(Words(names.begin(), names.end()));
  });
}

void Completer::CompleteConsumers() {
  if (_positionals.empty()) return;
  ReadStore([this](Session& session) {
    const core::IniFile read = ReadResources(session);
    const std::set<std::string> names = settings::ResourceFigures(read).GetConsumers(_positionals.front());
    Offer(Words(names.begin(), names.end()));
  });
}

// The names of what the server keeps. A revision is nothing that anybody begins to type.
void Completer::CompleteKept() {
  const std::string name = _command->get_name();
  if (!_positionals.empty()) {
    if (name == "rollback") Offer(ReadPaths(_current));
  } else if (IsOneOf(name, {"confirm", "revert"})) {
    Offer(ReadKept("trial", "trial", ""));
  } else {
    Offer(ReadKept("history", "checkpoint", name == "rollback" ? "@" : ""));
  }
}

// Of trials, those that are pending.
Words Completer::ReadKept(const std::string& feature, const std::string& request, const std::string& prefix) const {
  Words words;
  ReadStore([&](Session& session) {
    const auto* const features = session.FindFeatures();
    if (features == nullptr || features->count(feature) == 0) return;
    for (const auto& [name, keys] : session.Ask(request, Session::Effect::kNoSettings).data) {
      const auto state = keys.find("state");
      if (state == keys.end() || state->second == "pending") words.push_back(prefix + SpellName(name));
    }
  });
  return words;
}

void Completer::ReadStore(const std::function<void(Session&)>& read) const {
  LimitTime();
  Console console(_options);
  Context context(_options, console);
  read(context.GetSession());
}

// Names that share a path stand together.
Words Completer::ReadPaths(const std::string& word) const {
  Words paths;
  ReadStore([&](Session& session) {
    session.GetEachName({Unspell(word) + "*"}, [&](const std::string& name) {
      const std::string spelled = SpellName(name);
      if (spelled.rfind(word, 0) != 0) return;
      std::string path = PathOf(spelled, word);
      if (paths.empty() || paths.back() != path) paths.push_back(std::move(path));
    });
  });
  return paths;
}

// Those of a pattern could be many, and mean nothing.
Words Completer::ReadKeys(const std::string& group) const {
  Words keys;
  if (group.find('*') != std::string::npos) return keys;
  ReadStore([&](Session& session) {
    const core::IniFile settings = session.Get({group});
    if (!settings.HasGroup(group)) return;
    for (const auto& [key, value] : settings[group]) keys.push_back(SpellKey(key));
  });
  return keys;
}

void Completer::Offer(const Words& words) const {
  Candidates candidates;
  for (const std::string& word : words) candidates.push_back({word});
  Offer(candidates);
}

void Completer::Offer(const Candidates& candidates) const {
  Console console(_options);
  for (const auto& [word, description] : candidates) {
    if (word.rfind(_current, 0) != 0) continue;
    console.Print(_prefix + word + (description.empty() ? "" : "\t" + description) + "\n");
  }
}

void Completer::OfferFiles() const {
  Console(_options).Print("\tfiles\n");
}

}  // namespace tavix::programs::cli
