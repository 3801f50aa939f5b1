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
  ClosedLoop(const std::vector<Descriptor>& connections, const Exchange& exchange)
      : _exchange(exchange), _poller(epoll_create1(EPOLL_CLOEXEC), "make an epoll"), _buffer(exchange.reply.size(), 0) {
    for (const Descriptor& connection : connections) _conversations.push_back({&connection, 0});
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
    const Descriptor* connection;
    size_t missing;
  };

  void Send(Conversation& conversation) {
    conversation.missing = _exchange.reply.size();
    WriteAll(*conversation.connection, _exchange.request);
  }

  // Whether the reply is complete.
  bool Receive(Conversation& conversation) {
    const ssize_t got = read(conversation.connection->Get(), _buffer.data(), conversation.missing);
    if (got <= 0) throw osa::Exception("A connection ended");
    conversation.missing -= static_cast<size_t>(got);
    return conversation.missing == 0;
  }

  const Exchange& _exchange;
  const Descriptor _poller;
  std::vector<Conversation> _conversations;
  std::vector<epoll_event> _events{256};
  std::string _buffer;
};

}  // namespace

double MeasureClosedLoop(const std::vector<Descriptor>& connections, const Exchange& exchange, double seconds) {
  return ClosedLoop(connections, exchange).Run(seconds);
}

}  // namespace tavix::bench
