#include "bench/ClosedLoop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <string>

#include "bench/Timing.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kPatience = 5000;  // milliseconds

class ClosedLoop {
 public:
  ClosedLoop(const std::vector<osa::Descriptor>& connections, const std::vector<Script>& scripts)
      : _poller(Checked(epoll_create1(EPOLL_CLOEXEC), "make an epoll")),
        _buffer(scripts.front().front().reply.size(), 0) {
    for (size_t i = 0; i < connections.size(); ++i) _conversations.push_back({&connections[i], &scripts[i], 0, 0});
    for (Conversation& conversation : _conversations) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.ptr = &conversation;
      epoll_ctl(_poller.Get(), EPOLL_CTL_ADD, conversation.connection->Get(), &event);
    }
  }

  double Run(double seconds) {
    const double start = NowInMicroseconds() + seconds / 4 * 1e6;
    const double end = start + seconds * 1e6;
    for (Conversation& conversation : _conversations) Send(conversation);
    double answered = 0;
    size_t outstanding = _conversations.size();
    while (outstanding > 0) {
      const int ready = epoll_wait(_poller.Get(), _events.data(), static_cast<int>(_events.size()), kPatience);
      if (ready <= 0) throw osa::Exception("No reply within %d ms", kPatience);
      for (int i = 0; i < ready; ++i) {
        auto& conversation = *static_cast<Conversation*>(_events[static_cast<size_t>(i)].data.ptr);
        if (!Receive(conversation)) continue;
        const double now = NowInMicroseconds();
        if (now >= start && now < end) ++answered;
        if (now < end) {
          Send(conversation);
        } else {
          --outstanding;
        }
      }
    }
    return answered / seconds;
  }

 private:
  struct Conversation {
    const osa::Descriptor* connection;
    const Script* script;
    size_t next;
    size_t missing;
  };

  void Send(Conversation& conversation) {
    const Exchange& exchange = (*conversation.script)[conversation.next++ % conversation.script->size()];
    conversation.missing = exchange.reply.size();
    WriteAll(*conversation.connection, exchange.request);
  }

  // Whether the reply is complete.
  bool Receive(Conversation& conversation) {
    const ssize_t got = read(conversation.connection->Get(), _buffer.data(), conversation.missing);
    if (got <= 0) throw osa::Exception("A connection ended");
    conversation.missing -= static_cast<size_t>(got);
    return conversation.missing == 0;
  }

  const osa::Descriptor _poller;
  std::vector<Conversation> _conversations;
  std::vector<epoll_event> _events{256};
  std::string _buffer;
};

}  // namespace

double MeasureClosedLoop(const std::vector<osa::Descriptor>& connections, const std::vector<Script>& scripts,
                         double seconds) {
  return ClosedLoop(connections, scripts).Run(seconds);
}

double MeasureClosedLoop(const std::vector<osa::Descriptor>& connections, const Exchange& exchange, double seconds) {
  return MeasureClosedLoop(connections, std::vector<Script>(connections.size(), Script{exchange}), seconds);
}

}  // namespace tavix::bench
