#include "programs/cli/commands/Completer.h"

#include <sys/time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <set>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/session/Bookings.h"
#include "programs/cli/terminal/Console.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/LogLevels.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

namespace {

using Words = std::vector<std::string>;

constexpr char kWord[] = "__complete";
constexpr int kLimit = 250;  // milliseconds; the shell starts us within the rest of 300

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

Words SubCommandsOf(const CLI::App& app) {
  Words names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
    names.push_back(command->get_name());
  return names;
}

const CLI::App* FindCommand(const CLI::App& app, const std::string& word) {
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->check_name(word)) return command;
  }
  return nullptr;
}

Words OptionsOf(const CLI::App* app) {
  Words names;
  for (; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

bool IsOneOf(const std::string& name, std::initializer_list<const char*> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

bool Completer::IsAsked(const Words& words) {
  return !words.empty() && words.front() == kWord;
}

int Completer::Run(const Words& words) {
  LimitTime();
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
  if (option == "--output" || option == "-o") Offer({"text", "ini", "json", "shell", "value"});
  if (option == "--color") Offer({"auto", "always", "never"});
  if (option == "--if") CompleteSettings();
  if (option == "--consumer" || option == "-c") CompleteConsumers();
}

void Completer::CompletePositional() {
  const std::string name = _command->get_name();
  if (IsOneOf(name, {"get", "watch", "unset", "wait", "set"})) {
    CompleteSettings();
  } else if (_command->get_parent() != &_line.GetApp()) {
    CompleteResources();
  } else if (IsOneOf(name, {"list", "show", "delete", "reset", "edit", "export"})) {
    Offer(ReadGroups());
  } else if (IsOneOf(name, {"search", "import", "diff"})) {
    if (!_positionals.empty()) Offer(ReadGroups());
  } else if (name == "log-level") {
    Offer(_positionals.empty() ? ReadGroups() : GetLogLevelNames());
  } else if (name == "help") {
    Offer(SubCommandsOf(_line.GetApp()));
  } else if (name == "completion") {
    Offer({"bash", "zsh", "fish"});
  }
}

// "[group]key" behind a bracket; keys behind a group, and groups everywhere else.
void Completer::CompleteSettings() {
  if (!_current.empty() && _current.front() == '[') {
    CompleteBracketed();
    return;
  }
  const Words keys = _positionals.empty() ? Words() : ReadKeys(_positionals.back());
  Offer(keys.empty() ? ReadGroups() : keys);
}

void Completer::CompleteBracketed() {
  const size_t close = _current.find(']');
  if (close == std::string::npos) {
    Words names = ReadGroups();
    for (std::string& group : names) group.insert(0, "[").append("]");
    Offer(names);
    return;
  }
  const std::string head = _current.substr(0, close + 1);
  Offer(ReadKeys(Unspell(head.substr(1, close - 1))), head);
}

void Completer::CompleteResources() {
  if (!_positionals.empty()) return;
  Console console(_options);
  Context context(_options, console);
  const core::IniFile read = ReadResources(context.GetSession());
  const std::set<std::string> names = settings::ResourceFigures(read).GetResources();
  Offer({names.begin(), names.end()});
}

void Completer::CompleteConsumers() {
  if (_positionals.empty()) return;
  Console console(_options);
  Context context(_options, console);
  const core::IniFile read = ReadResources(context.GetSession());
  const std::set<std::string> names = settings::ResourceFigures(read).GetConsumers(_positionals.front());
  Offer({names.begin(), names.end()});
}

Words Completer::ReadGroups() const {
  Console console(_options);
  Context context(_options, console);
  Words names;
  for (const std::string& name : NamesOf(context.GetSession().Get({"*"}))) names.push_back(SpellName(name));
  return names;
}

Words Completer::ReadKeys(const std::string& group) const {
  Console console(_options);
  Context context(_options, console);
  const core::IniFile settings = context.GetSession().Get({group});
  Words keys;
  if (!settings.HasGroup(group)) return keys;
  for (const auto& [key, value] : settings[group]) keys.push_back(SpellKey(key));
  return keys;
}

void Completer::Offer(const Words& candidates, const std::string& prefix) const {
  Console console(_options);
  for (const std::string& candidate : candidates) {
    const std::string word = prefix + candidate;
    if (word.rfind(_current, 0) == 0) console.Print(_prefix + word + "\n");
  }
}

}  // namespace tavix::programs::cli
