#include "programs/cli/terminal/InterruptReport.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

namespace tavix::programs::cli {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP};
constexpr size_t kCount = sizeof kSignals / sizeof *kSignals;

std::atomic<const std::string*> currentText{nullptr};
static_assert(std::atomic<const std::string*>::is_always_lock_free);  // as a handler needs it

struct sigaction before[kCount];
void (*pipeBefore)(int) = SIG_DFL;

// Calls nothing that a handler may not call. Who does not read it gets the exit status all the same.
extern "C" void EndWithReport(int signal) {
  const std::string* const text = currentText.load();
  const ssize_t written = text == nullptr ? 0 : write(STDERR_FILENO, text->data(), text->size());
  static_cast<void>(written);
  _exit(128 + signal);
}

}  // namespace

bool IsSignalIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

InterruptReport::InterruptReport(HangUp hangUp) : _texts(1) {
  currentText = &_texts.back();
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  for (const int signal : kSignals) sigaddset(&action.sa_mask, signal);
  for (size_t i = 0; i < kCount; ++i) {
    const bool isIgnored = IsSignalIgnored(kSignals[i]) || (kSignals[i] == SIGHUP && hangUp == HangUp::kIgnored);
    action.sa_handler = isIgnored ? SIG_IGN : EndWithReport;
    sigaction(kSignals[i], &action, &before[i]);
  }
  pipeBefore = std::signal(SIGPIPE, SIG_IGN);
}

InterruptReport::~InterruptReport() {
  std::signal(SIGPIPE, pipeBefore);
  for (size_t i = 0; i < kCount; ++i) sigaction(kSignals[i], &before[i], nullptr);
  currentText = nullptr;
}

void InterruptReport::Set(const std::string& reason, const std::string& hint) {
  _texts.push_back("tavix-settings: " + reason + "\n" + (hint.empty() ? "" : "hint: " + hint + "\n"));
  currentText = &_texts.back();
}

}  // namespace tavix::programs::cli
