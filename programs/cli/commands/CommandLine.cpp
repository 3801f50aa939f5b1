#include "programs/cli/commands/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/ParserWords.h"
#include "programs/cli/commands/WordMarker.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Suggestion.h"

namespace tavix::programs::cli {

namespace {

constexpr char kFooter[] =
    R"(One setting is '[group]key', quoted for the shell, or GROUP KEY; a bare word is a
group or a '*' pattern; '-' as a value is standard input; all words behind '--'
are taken as they are.

Exit status: 0 done; 1 the answer is no; 2 usage; 3 no server, or it was lost or
silent; 4 a condition failed; 5 refused; 6 input does not parse; 7 not applied;
9 not kept; 130 interrupted.

  tavix-settings show 'Network/*'
  tavix-settings set '[Network/Hostname]name=camera-7'
  tavix-settings get Network/Hostname name
  tavix-settings watch 'Network/*'
)";

std::vector<std::string> OptionNames(const CLI::App* app) {
  std::vector<std::string> names;
  for (; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->get_group().empty()) continue;  // hidden
    names.push_back(command->get_name());
    for (const std::string& alias : command->get_aliases()) names.push_back(alias);
  }
  return names;
}

const CLI::App* ChosenCommand(const CLI::App* app) {
  while (!app->get_subcommands().empty()) app = app->get_subcommands().back();
  return app;
}

CommandLine::Action PrintText(const std::string& text) {
  return [text](Context& context) {
    context.GetConsole().Print(text);
    return kExitDone;
  };
}

}  // namespace

// The global options as they stand on the command line.
struct CommandLine::GlobalWords {
  std::string server, local, output = "text", color = "auto";
  double timeout = 2;
  bool json = false, quiet = false, verbose = false;
};

CommandLine::CommandLine()
    : _words(std::make_unique<GlobalWords>()),
      _app(std::make_unique<CLI::App>("Reads, changes and watches a device's settings.", "tavix-settings")) {
  _app->require_subcommand(0, 1);
  _app->footer(kFooter);
  _app->get_formatter()->label("Subcommands", "Commands");
  _app->get_formatter()->label("SUBCOMMAND", "COMMAND");
  _app->get_formatter()->label("OPTIONS", "OPTION...");
  _app->get_formatter()->label("REQUIRED", "");
  AddGlobalOptions();
  AddAllCommands(*this);
}

CommandLine::~CommandLine() = default;

void CommandLine::AddGlobalOptions() {
  _app->set_help_flag("-h,--help", "Show this text");
  _app->set_version_flag("-V,--version", "tavix-settings " TAVIX_VERSION, "Show the version");
  const CommandOptions options(*_app);
  options.AddText("-s,--server", _words->server, "HOST, HOST:PORT or unix:PATH (or TAVIX_SETTINGS_SERVER)");
  options.AddText("--local", _words->local, "Work on a settings file, without a server");
  _app->get_option("--server")->type_name("SERVER");
  _app->get_option("--local")->type_name("FILE");
  _app->add_option("-t,--timeout", _words->timeout, "Seconds that the server may keep silent (2)")
      ->transform(WithoutUnit, "")
      ->check(CLI::Range(0.001, 1e6).description(""))
      ->type_name("SECONDS");
  _app->add_option("-o,--output", _words->output, "text, ini, json, shell or value")
      ->check(CLI::IsMember({"text", "ini", "json", "shell", "value"}).description(""))
      ->type_name("FORM");
  _app->add_flag("--json", _words->json, "The same as --output json");
  _app->add_flag("-q,--quiet", _words->quiet, "Say nothing but errors");
  _app->add_flag("-v,--verbose", _words->verbose, "Show the protocol's lines, > sent and < received");
  _app->add_option("--color", _words->color, "auto, always or never")
      ->check(CLI::IsMember({"auto", "always", "never"}).description(""))
      ->type_name("WHEN");
}

CommandOptions CommandLine::Add(const std::string& names, const std::string& description, Action action) {
  return AddTo(CommandOptions(*_app), names, description, std::move(action));
}

CommandOptions CommandLine::AddGroup(const std::string& name, const std::string& description) {
  CLI::App* group = _app->add_subcommand(name, description);
  group->fallthrough();
  group->require_subcommand(0, 1);
  group->callback([this, group] {
    if (group->get_subcommands().empty()) _action = PrintText(_app->help());
  });
  return CommandOptions(*group);
}

CommandOptions CommandLine::AddTo(const CommandOptions& group, const std::string& names, const std::string& description,
                                  Action action) {
  const size_t comma = names.find(',');
  CLI::App* command = group._command.add_subcommand(names.substr(0, comma), description);
  if (comma != std::string::npos) command->alias(names.substr(comma + 1));
  command->fallthrough();
  command->footer("'tavix-settings --help' shows the options of every command.\n");
  command->callback([this, action = std::move(action)] { _action = action; });
  return CommandOptions(*command);
}

CommandLine::Action CommandLine::Parse(std::vector<std::string> words, GlobalOptions& options) {
  try {
    Action action = ParseProtected(std::move(words));
    ReadGlobalOptions(options);
    return action;
  } catch (const CLI::CallForHelp&) {
    return PrintText(_app->help());
  } catch (const CLI::CallForVersion& version) {
    return PrintText(version.what() + std::string("\n"));
  } catch (const CLI::ExtrasError&) {
    const std::vector<std::string> extras = _app->remaining(true);
    FailUnknown(extras.empty() ? std::string() : UnmarkWord(extras.front()));
  } catch (const CLI::ParseError& error) {
    const std::vector<std::string> extras = _app->remaining(true);
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr && !extras.empty())
      FailUnknown(UnmarkWord(extras.front()));
    std::string text = error.what();
    text.erase(std::remove(text.begin(), text.end(), kWordMark), text.end());
    FailUsage(text);
  }
}

// The parser takes the words from the back.
CommandLine::Action CommandLine::ParseProtected(std::vector<std::string> words) {
  words = WordMarker(*_app).Mark(words);
  std::reverse(words.begin(), words.end());
  _app->parse(std::move(words));
  if (!_action) throw Failure(kExitUsage, "expected a command", "try 'tavix-settings --help'");
  return _action;
}

void CommandLine::ReadGlobalOptions(GlobalOptions& options) const {
  const bool hasServer = _app->get_option("--server")->count() > 0;
  const bool hasLocal = _app->get_option("--local")->count() > 0;
  if (hasServer && hasLocal) FailUsage("--server and --local can't go together: it is one store or the other");
  // A script's empty variable must not mean another store.
  if (hasServer && _words->server.empty()) FailUsage("--server: expected an address, found an empty text");
  if (hasLocal && _words->local.empty()) FailUsage("--local: expected a file's name, found an empty text");
  if (_words->local == "-") FailUsage("--local: '-' is no file; one of that name is './-'");
  options.server = _words->server;
  options.local = _words->local;
  options.timeout = _words->timeout;
  options.quiet = _words->quiet;
  options.verbose = _words->verbose;
  const std::string output = _words->json ? "json" : _words->output;
  options.output = output == "ini"     ? Output::kIni
                   : output == "json"  ? Output::kJson
                   : output == "shell" ? Output::kShell
                   : output == "value" ? Output::kValue
                                       : Output::kText;
  options.color = _words->color == "always"  ? ColorChoice::kAlways
                  : _words->color == "never" ? ColorChoice::kNever
                                             : ColorChoice::kAuto;
}

void CommandLine::FailUnknown(const std::string& word) const {
  const CLI::App* command = ChosenCommand(_app.get());
  if (word.rfind('-', 0) == 0 && word != "-")
    FailUsage("there is no option '" + SpellValue(word) + "'" +
              DidYouMean(word.substr(0, word.find('=')), OptionNames(command)));
  const std::vector<std::string> names = CommandNames(*command);
  if (names.empty()) FailUsage("unexpected argument '" + SpellValue(word) + "'");
  FailUsage("there is no command '" + SpellValue(word) + "'" + DidYouMean(word, names));
}

void CommandLine::FailUsage(const std::string& text) const {
  std::string name;
  for (const CLI::App* at = ChosenCommand(_app.get()); at->get_parent() != nullptr; at = at->get_parent())
    name.insert(0, " " + at->get_name());
  throw Failure(kExitUsage, text, "try 'tavix-settings" + name + " --help'");
}

std::string CommandLine::GetHelp(const std::string& command) const {
  if (command.empty()) return _app->help();
  for (const CLI::App* found : _app->get_subcommands([](const CLI::App*) { return true; })) {
    if (found->check_name(command)) return found->help(_app->get_name());
  }
  throw Failure(kExitUsage,
                "there is no command '" + SpellValue(command) + "'" + DidYouMean(command, CommandNames(*_app)));
}

}  // namespace tavix::programs::cli
