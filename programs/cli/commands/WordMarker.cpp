#include "programs/cli/commands/WordMarker.h"

#include <CLI/CLI.hpp>

#include "programs/cli/commands/ParserWords.h"

namespace tavix::programs::cli {

namespace {

constexpr char kEndOfOptions[] = "--";

bool TakesValue(const CLI::App* command, const std::string& option) {
  for (; command != nullptr; command = command->get_parent()) {
    const CLI::Option* const found = command->get_option_no_throw(option);
    if (found != nullptr) return found->get_items_expected_max() > 0;
  }
  return false;
}

const CLI::App* FindCommand(const CLI::App& app, const std::string& word) {
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->check_name(word)) return command;
  }
  return nullptr;
}

// A negative number is no option. Of "--name=VALUE" the value alone may be marked.
bool LooksLikeOption(const std::string& word) {
  const bool isNumber = word.rfind(kEndOfOptions, 0) != 0 && MarkWord(word) != word;
  return word.size() > 1 && word.front() == '-' && !isNumber;
}

}  // namespace

std::vector<std::string> WordMarker::Mark(const std::vector<std::string>& words) {
  std::vector<std::string> marked;
  for (size_t at = 0; at < words.size(); ++at) {
    // At the very end "--" is a value where one is expected.
    const bool isLastValue = IsValue() && at + 1 == words.size();
    if (words[at] == kEndOfOptions && !_isAsItIs && !_isOptionValue && !isLastValue) {
      _isAsItIs = true;
    } else {
      marked.push_back(MarkNext(words[at]));
    }
  }
  return marked;
}

std::string WordMarker::MarkNext(const std::string& word) {
  if (_isOptionValue) {
    _isOptionValue = false;
    return word == kEndOfOptions ? MarkAnyWord(word) : MarkWord(word);
  }
  if (!_isAsItIs && !IsValue() && LooksLikeOption(word)) {
    _isOptionValue = TakesNextWord(word);
    return MarkWord(word);
  }
  const CLI::App* const command = FindCommand(*_command, word);
  if (command != nullptr) {
    _command = command;
    return word;
  }
  const bool isValue = _isAsItIs || IsValue();
  Step(word);
  return isValue ? MarkAnyWord(word) : MarkWord(word);
}

// Short options may stand in one word, the last of them with its value behind it.
bool WordMarker::TakesNextWord(const std::string& option) const {
  if (option.rfind(kEndOfOptions, 0) == 0) return option.find('=') == std::string::npos && TakesValue(_command, option);
  for (size_t at = 1; at < option.size(); ++at) {
    if (TakesValue(_command, std::string("-") + option[at])) return at + 1 == option.size();
  }
  return false;
}

void WordMarker::Step(const std::string& word) {
  if (_command->get_name() == "set") _place = NextPlace(_place, word);
}

}  // namespace tavix::programs::cli
