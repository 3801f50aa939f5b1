#include "bench/FloorServer.h"

#include <sys/epoll.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

namespace tavix::bench {

namespace {

void Answer(const osa::Descriptor& connection, ExchangeSize size) {
  std::string request(size.request, '\0');
  const std::string reply(size.reply, 'r');
  while (TryReadAll(connection, request.data(), request.size())) WriteAll(connection, reply);
}

void AnswerWithThreads(const LoopbackListener& listener, ExchangeSize size) {
  while (true) {
    std::thread([connection = listener.Accept(), size] { Answer(connection, size); }).detach();
  }
}

// A connection that it watches has a whole request as soon as it is readable: senders write it at once.
void AnswerWithEventLoop(const LoopbackListener& listener, ExchangeSize size) {
  const osa::Descriptor poller = Checked(epoll_create1(EPOLL_CLOEXEC), "make an epoll");
  const auto watch = [&](const osa::Descriptor& descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor.Get();
    epoll_ctl(poller.Get(), EPOLL_CTL_ADD, descriptor.Get(), &event);
  };
  watch(listener.GetDescriptor());
  std::map<int, osa::Descriptor> connections;
  std::vector<epoll_event> events(256);
  std::string request(size.request, '\0');
  const std::string reply(size.reply, 'r');
  while (true) {
    const int ready = epoll_wait(poller.Get(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < ready; ++i) {
      const int which = events[static_cast<size_t>(i)].data.fd;
      if (which == listener.GetDescriptor().Get()) {
        osa::Descriptor connection = listener.Accept();
        watch(connection);
        connections.emplace(connection.Get(), std::move(connection));
      } else if (const osa::Descriptor& connection = connections[which];
                 TryReadAll(connection, request.data(), request.size())) {
        WriteAll(connection, reply);
      } else {
        connections.erase(which);
      }
    }
  }
}

void RelayRequests(const LoopbackListener& listener, ExchangeSize size, int receivers) {
  const osa::Descriptor sender = listener.Accept();
  std::vector<osa::Descriptor> connections;
  for (int i = 0; i < receivers; ++i) connections.push_back(listener.Accept());
  std::string request(size.request, '\0');
  const std::string message(size.reply, 'm');
  while (TryReadAll(sender, request.data(), request.size())) {
    for (const osa::Descriptor& connection : connections) WriteAll(connection, message);
  }
}

}  // namespace

FloorServer FloorServer::WithThreadPerConnection(ExchangeSize size, int core) {
  return FloorServer(core, [=](const LoopbackListener& listener) { AnswerWithThreads(listener, size); });
}

FloorServer FloorServer::WithEventLoop(ExchangeSize size) {
  return FloorServer(kAnyCore, [=](const LoopbackListener& listener) { AnswerWithEventLoop(listener, size); });
}

FloorServer FloorServer::Relay(ExchangeSize size, int receivers, int core) {
  return FloorServer(core, [=](const LoopbackListener& listener) { RelayRequests(listener, size, receivers); });
}

FloorServer::FloorServer(int core, const Serve& serve) {
  const LoopbackListener listener;
  _port = listener.GetPort();
  _process = std::make_unique<OwnProcess>([&] {
    if (core != kAnyCore) PinToCore(core);
    serve(listener);
  });
}

}  // namespace tavix::bench
