#include "programs/web/changes/ChangeFollower.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "tavix/osa/Exception.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace tavix::web {

using core::IniFile;
using settings::client::ProtocolClient;
using settings::client::ProtocolException;
using settings::client::ProtocolNotice;

namespace {

constexpr char kAll[] = "*";
constexpr int kRetryTime = 1000;  // milliseconds
constexpr std::chrono::milliseconds kSilence{5000};

osa::Descriptor MakeCounter() {
  osa::Descriptor counter(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!counter) throw osa::Exception("Failed to make an event: %s", std::strerror(errno));
  return counter;
}

}  // namespace

ChangeFollower::ChangeFollower(std::string server, const View& view, std::function<void()> wake)
    : _server(std::move(server)),
      _view(view),
      _wake(std::move(wake)),
      _endSignal(MakeCounter()),
      _thread("WebChanges", [this] {
        Run();
        _hasEnded = true;
        _wake();
      }) {}

ChangeFollower::~ChangeFollower() {
  BeginEnd();
  _thread.Join();
}

// A counter that is not 0 can be written again, and nobody reads it.
void ChangeFollower::BeginEnd() noexcept {
  const uint64_t one = 1;
  const ssize_t written = write(_endSignal.Get(), &one, sizeof one);
  static_cast<void>(written);
}

ChangeFollower::News ChangeFollower::Take() {
  const osa::PlainMutexLock lock(_mutex);
  News news = std::move(_news);
  _news = News();
  _news.state = news.state;
  return news;
}

// Waits until the descriptor can be read, the time is over, or the end: true then.
bool ChangeFollower::AwaitEnd(int descriptor, int milliseconds) const {
  pollfd watched[] = {{_endSignal.Get(), POLLIN, 0}, {descriptor, POLLIN, 0}};
  poll(watched, descriptor < 0 ? 1 : 2, milliseconds);
  return (watched[0].revents & POLLIN) != 0;
}

void ChangeFollower::Run() {
  do {
    try {
      Follow();
      return;
    } catch (const std::exception&) {
      Report(State::kLost, false, {});
    }
    _known.Clear();
  } while (!AwaitEnd(-1, kRetryTime));
}

// Returns at the end alone.
void ChangeFollower::Follow() {
  settings::client::ProtocolOptions options;
  options.address = _server;
  options.addressSource = "--server";
  options.timeouts.silence = kSilence;
  ProtocolClient client(options);
  Subscribe(client);
  while (true) {
    try {
      while (const auto notice = client.AwaitNotice(std::chrono::milliseconds(0))) TakeNotice(*notice);
    } catch (const ProtocolException& exception) {
      if (!client.IsOpen()) throw;
      Subscribe(client);  // notices were dropped: it begins anew
      continue;           // what came behind the reply is no event of the descriptor
    }
    if (AwaitEnd(client.GetDescriptor(), -1)) return;
  }
}

// The daemon refuses a subscription without a word.
void ChangeFollower::RequireSubscribed(ProtocolClient& client) {
  const std::vector<std::string> all = client.GetSubscribed();
  if (std::find(all.begin(), all.end(), kAll) == all.end())
    throw osa::Exception("The daemon has no room for a subscription");
}

void ChangeFollower::Subscribe(ProtocolClient& client) {
  _known.Clear();
  Learn(PackAll(client));
  RequireSubscribed(client);
#ifdef __GLIBC__
  malloc_trim(0);  // a whole store was held for a moment
#endif
  Report(State::kFollowing, true, {});
}

// Each group's name and values, on a line each. As one text: small ones would lie scattered over the pages of the
// store, which could not go back to the system then. What is too much to be known is left out.
std::string ChangeFollower::PackAll(ProtocolClient& client) const {
  std::string lines;
  const IniFile all = client.Subscribe({kAll});
  for (auto group = all.begin(); group != all.end() && lines.size() <= KnownValues::kMaxBytes; ++group)
    lines += programs::Join({group->first, "\n", *ValuesOf(all, group->first), "\n"});
  return lines;
}

void ChangeFollower::Learn(const std::string& lines) {
  for (size_t at = 0; at < lines.size();) {
    const size_t name = lines.find('\n', at);
    const size_t end = lines.find('\n', name + 1);
    _known.Exchange(lines.substr(at, name - at), lines.substr(name + 1, end - name - 1));
    at = end + 1;
  }
}

std::optional<std::string> ChangeFollower::ValuesOf(const IniFile& settings, const std::string& group) const {
  const auto found = settings.GetGroups().find(group);
  if (found == settings.end()) return std::nullopt;
  return programs::Compact(_view.ValuesToJson(group, found->second));
}

void ChangeFollower::TakeNotice(const ProtocolNotice& notice) {
  std::vector<ChangePointer> changes;
  for (const std::string& group : notice.groups) {
    auto change = std::make_shared<GroupChangeEvent>();
    change->group = group;
    const std::optional<std::string> values = ValuesOf(notice.settings, group);
    change->isGone = !values;
    if (values) {
      change->newValues = *values;
      change->version = _view.FindVersion(group, notice.settings[group]);
    }
    change->oldValues = _known.Exchange(group, values);
    changes.push_back(std::move(change));
  }
  Report(State::kFollowing, false, std::move(changes));
}

void ChangeFollower::Report(State state, bool hasBegun, std::vector<ChangePointer> changes) {
  {
    const osa::PlainMutexLock lock(_mutex);
    if (hasBegun) {
      _news.hasBegun = true;
      _news.changes.clear();
    }
    _news.state = state;
    for (ChangePointer& change : changes) _news.changes.push_back(std::move(change));
  }
  _wake();
}

}  // namespace tavix::web
