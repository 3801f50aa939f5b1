#include "programs/cli/terminal/Console.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

// The codes of ECMA-48, in the order of Console::Color.
constexpr const char* kCodes[] = {"", "\x1b[1;36m", "\x1b[33m", "\x1b[31m", "\x1b[32m", "\x1b[1;31m", "\x1b[2m"};

bool IsSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool DecideColors(ColorChoice choice) {
  if (choice != ColorChoice::kAuto) return choice == ColorChoice::kAlways;
  if (isatty(STDOUT_FILENO) == 0 || IsSet("NO_COLOR")) return false;
  const char* terminal = std::getenv("TERM");
  return terminal == nullptr || std::strcmp(terminal, "dumb") != 0;
}

[[noreturn]] void FailToPrint() {
  throw Failure(kExitNotApplied, std::string("standard output can't be written: ") + std::strerror(errno));
}

// Data and talk come in the order in which they came, where both go to one place. A buffer that can't be written is
// dropped, and the next flush succeeds: so no failure may be passed over.
void FlushData() {
  if (std::fflush(stdout) != 0) FailToPrint();
}

}  // namespace

Console::Console(const GlobalOptions& options)
    : _quiet(options.quiet),
      _isOutputTerminal(isatty(STDOUT_FILENO) != 0),
      _isErrorTerminal(isatty(STDERR_FILENO) != 0),
      _hasColors(DecideColors(options.color)) {}

void Console::Print(const std::string& text) {
  ClearProgress();
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) FailToPrint();
}

void Console::Flush() {
  FlushData();
  if (std::ferror(stdout) != 0) throw Failure(kExitNotApplied, "standard output can't be written");
}

void Console::Say(const std::string& line) const {
  if (_quiet) return;
  FlushData();
  std::fprintf(stderr, "%s\n", line.c_str());
}

void Console::Warn(const std::string& line) {
  FlushData();
  std::fprintf(stderr, "tavix-settings: %s\n", line.c_str());
}

void Console::ReportFailure(const std::string& reason, const std::string& hint) {
  std::fflush(stdout);
  if (!reason.empty()) std::fprintf(stderr, "tavix-settings: %s\n", reason.c_str());
  if (!hint.empty()) std::fprintf(stderr, "hint: %s\n", hint.c_str());
}

void Console::Trace(char direction, const std::string& line) {
  std::fprintf(stderr, "%c %s\n", direction, line.c_str());
}

void Console::ShowProgress(const std::string& line) {
  if (_quiet || !_isErrorTerminal) return;
  std::fprintf(stderr, "\r\x1b[K%s", line.c_str());
  std::fflush(stderr);
  _hasProgress = true;
}

void Console::ClearProgress() {
  if (!_hasProgress) return;
  std::fputs("\r\x1b[K", stderr);
  _hasProgress = false;
}

std::string Console::Paint(Color color, const std::string& text) const {
  if (!_hasColors || color == kPlain || text.empty()) return text;
  return kCodes[color] + text + "\x1b[0m";
}

std::string Console::ShowValue(const std::string& value) const {
  return IsUtf8(value) ? ShowBareValue(value) : SpellValue(value);
}

std::string Console::ShowBareValue(const std::string& value) const {
  if (!_isOutputTerminal) return value;
  // Between dots no blank stands at an end. What then grows by more than its backslashes holds something else to spell.
  const std::string spelled = SpellValue("." + value + ".");
  const auto backslashes = static_cast<size_t>(std::count(value.begin(), value.end(), '\\'));
  return spelled.size() == value.size() + backslashes + 2 ? value : SpellValue(value);
}

bool Console::CanAsk() {
  return isatty(STDIN_FILENO) != 0;
}

bool Console::Ask(const std::string& question) {
  FlushData();
  std::fprintf(stderr, "%s [y/N] ", question.c_str());
  std::string answer;
  if (!std::getline(std::cin, answer)) std::fputs("\n", stderr);
  return !answer.empty() && (answer.front() == 'y' || answer.front() == 'Y');
}

}  // namespace tavix::programs::cli
