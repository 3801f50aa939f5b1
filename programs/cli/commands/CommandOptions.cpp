#include "programs/cli/commands/CommandOptions.h"

#include <CLI/CLI.hpp>

#include "programs/cli/commands/ParserWords.h"

namespace tavix::programs::cli {

namespace {

// What has a dash is shown with a word for its value.
const char* TypeNameOf(const std::string& names) {
  return names.front() == '-' ? "TEXT" : "";
}

template <class Target>
DeclaredOption AddAnyText(CLI::App& command, const std::string& names, Target& target, const std::string& description) {
  CLI::Option* const option = command.add_option(names, target, description);
  return DeclaredOption(*option->transform(UnmarkWord, "")->type_name(TypeNameOf(names)));
}

}  // namespace

DeclaredOption DeclaredOption::Require() const {
  _option.required();
  return *this;
}

DeclaredOption DeclaredOption::Need(const DeclaredOption& other) const {
  _option.needs(&other._option);
  return *this;
}

DeclaredOption DeclaredOption::Exclude(const DeclaredOption& other) const {
  _option.excludes(&other._option);
  return *this;
}

DeclaredOption DeclaredOption::TakeOneWordEach() const {
  _option.allow_extra_args(false);
  return *this;
}

DeclaredOption DeclaredOption::SetWhenGiven(bool& isGiven) const {
  _option.each([&isGiven](const std::string&) { isGiven = true; });
  return *this;
}

DeclaredOption CommandOptions::AddFlag(const std::string& names, bool& target, const std::string& description) const {
  return DeclaredOption(*_command.add_flag(names, target, description));
}

DeclaredOption CommandOptions::AddText(const std::string& names, std::string& target,
                                       const std::string& description) const {
  return AddAnyText(_command, names, target, description);
}

DeclaredOption CommandOptions::AddTexts(const std::string& names, std::vector<std::string>& target,
                                        const std::string& description) const {
  return AddAnyText(_command, names, target, description);
}

DeclaredOption CommandOptions::AddSeconds(const std::string& names, double& target, double min,
                                          const std::string& description) const {
  CLI::Option* const option = _command.add_option(names, target, description);
  return DeclaredOption(
      *option->transform(WithoutUnit, "")->check(CLI::Range(min, 1e9).description(""))->type_name("SECONDS"));
}

DeclaredOption CommandOptions::AddCount(const std::string& names, size_t& target,
                                        const std::string& description) const {
  CLI::Option* const option = _command.add_option(names, target, description);
  return DeclaredOption(*option->check(CLI::Range(1, 1000000000).description(""))->type_name("N"));
}

void CommandOptions::SetFooter(const std::string& text) const {
  _command.footer(text);
}

}  // namespace tavix::programs::cli
