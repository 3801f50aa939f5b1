#include "programs/web/service/Server.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <set>
#include <utility>

#include "programs/common/client/Join.h"
#include "programs/web/access/Certificate.h"
#include "programs/web/access/Password.h"
#include "programs/web/access/PrivateFile.h"
#include "programs/web/http/EmbeddedFile.h"
#include "programs/web/http/Refusal.h"
#include "programs/web/interface/JsonBody.h"
#include "programs/web/service/ErrorLine.h"

namespace tavix::web {

namespace {

constexpr size_t kMaxWaitingLogins = 4;
constexpr Milliseconds kGraceTime{1000};  // for the worker's own answer, which knows more

// Of bodies that are as large as they may be, and of memory that small ones always find.
constexpr size_t kMaxLargeBodies = 8;
constexpr size_t kMaxLargeAnswers = 4;
constexpr size_t kMinMemoryBudget = 1024 * size_t{1024};

Response Healthy() {
  return {200, {{"Content-Type", "application/json"}}, "{\"status\":\"ok\"}\n"};
}

// Has an answer sent, whatever becomes of the request.
template <class Step>
void AnswerErrors(Connection& connection, Step step) {
  try {
    step();
  } catch (const Refusal& refusal) {
    connection.Send(ToResponse(refusal));
  } catch (const std::exception& exception) {
    connection.Send(ToResponse(Refusal(500, exception.what())));
  }
}

}  // namespace

Server::Server(const Options& options, Access& access, std::unique_ptr<const Encryption> encryption,
               const std::vector<Listener>& listeners, const programs::Signals& signals)
    : _options(options),
      _access(access),
      _encryption(std::move(encryption)),
      _signals(signals),
      _gate(options, access),
      _bodies(std::max(kMaxLargeBodies * options.maxBodyBytes, kMinMemoryBudget)),
      _answers(kMaxLargeAnswers * options.maxAnswerBytes),
      _bounds{options.maxAnswerBytes, _answers},
      _view{options.showsRestricted, options.isReadOnly, MakeSecret()},
      _wakeup(_base,
              [this] {
                SendDone(_workers);
                SendDone(_hashing);
                _streams.OnNews();
              }),
      _streams(_base, options.server, _view, [this] { _wakeup.Wake(); }),
      _links{{DaemonLink(options.server), DaemonLink(options.server)}},
      _workers(
          "WebWorker", _links.size(), kMaxWaiting, [this] { _wakeup.Wake(); },
          [this](size_t worker, const std::vector<WorkQueue::Reading>& readings) { ReadAtOnce(worker, readings); }),
      _hashing("WebPassword", 1, kMaxWaitingLogins, [this] { _wakeup.Wake(); }) {
  _events.push_back(std::make_unique<LoopEvent>(_base, signals.GetDescriptor(), [this] { OnSignal(); }));
  for (const Listener& listener : listeners)
    _events.push_back(
        std::make_unique<LoopEvent>(_base, listener.GetDescriptor(), [this, &listener] { Accept(listener); }));
}

// Streams and pending answers refer to connections. What libevent still has to call for them keeps their memory.
Server::~Server() {
  _events.clear();
  while (!_connections.empty()) OnEnd(*_connections.begin()->second);
  event_base_loop(_base.Get(), EVLOOP_NONBLOCK);
}

void Server::OnSignal() {
  const int number = _signals.Take().number;
  if (number == SIGTERM || number == SIGINT) _base.End();
  if (number == SIGHUP && _encryption) ReloadEncryption();
}

void Server::ReloadEncryption() {
  try {
    _encryption = LoadEncryption(_options);
    std::puts("tavix-settings-web: SIGHUP: the certificate was read again");
    std::fflush(stdout);
  } catch (const std::exception& exception) {
    PrintError((programs::Join({"SIGHUP: ", exception.what(), "; the certificate stays as it was"})).c_str());
  }
}

bool Server::HasRoom(const Peer& peer) const {
  if (_connections.size() >= kMaxConnections) return false;
  if (peer.isUnix || peer.isLoopback || _gate.IsTrustedProxy(peer)) return true;
  const auto found = _addresses.find(peer.address);
  return found == _addresses.end() || found->second < _options.maxPerAddress;
}

// One that there is no room for is ended at once.
void Server::Accept(const Listener& listener) {
  osa::Descriptor socket = listener.Accept();
  if (!socket) return;
  const std::optional<Peer> peer = FindPeer(socket.Get());
  if (!peer || !HasRoom(*peer)) return;
  RequestParser::Limits limits;
  limits.bodyBytes = _options.maxBodyBytes;
  ConnectionOwner& owner = *this;
  auto connection = std::make_unique<Connection>(_base, std::move(socket), _encryption.get(), *peer, limits, owner);
  ++_addresses[peer->address];
  Connection* const key = connection.get();
  _connections.emplace(key, std::move(connection));
}

void Server::OnEnd(Connection& connection) {
  _streams.OnEnd(connection);
  for (auto& [number, pending] : _pending) {
    if (pending.connection == &connection) pending.connection = nullptr;
  }
  const auto count = _addresses.find(connection.GetPeer().address);
  if (--count->second == 0) _addresses.erase(count);
  _connections.erase(&connection);
}

Response Server::OnRefused(int status, const std::string& reason) {
  return ToResponse(Refusal(status, reason));
}

void Server::OnHead(Connection& connection, const Request& head, size_t announcedBytes) {
  AnswerErrors(connection, [&] {
    const size_t maxBytes = _gate.Admit(connection.GetPeer(), head, true).maxBodyBytes;
    MemoryBudget::Share share = _bodies.Take(std::min(announcedBytes, maxBytes));
    if (!share) RefuseForNow(503, "too many bodies are on their way", 1);
    connection.AcceptBody(maxBytes, std::move(share));
  });
}

void Server::OnRequest(Connection& connection, Request& request) {
  AnswerErrors(connection, [&] { Handle(connection, request); });
}

// Looked at again when the body has come: a login may have ended meanwhile.
void Server::Handle(Connection& connection, Request& request) {
  const Gate::Entry entry = _gate.Admit(connection.GetPeer(), request, !request.body.empty());
  if (entry.file) return connection.Send(AnswerByFile(*entry.file, request));
  if (!entry.route) return connection.Send(Healthy());
  HandleRoute(connection, request, entry);
}

void Server::HandleRoute(Connection& connection, Request& request, const Gate::Entry& entry) {
  using Place = Route::Place;
  const Route& route = *entry.route;
  if (route.place == Place::kLogin) return LogIn(connection, request, entry.origin);
  if (route.place == Place::kLogout) return connection.Send(LogOut(request, entry.origin));
  if (route.place == Place::kChanges) {
    if (request.method == "HEAD") throw Refusal(405, "a stream has no HEAD", {}, {{"Allow", "GET"}});
    return _streams.Open(connection, request, [this, login = _access.FindLogin(request, connection.GetPeer())] {
      return !login || _access.GetLogins().IsValid(*login, Logins::Clock::now());
    });
  }
  const bool isWrite = request.IsWrite();
  const auto end = DaemonLink::Clock::now() + _options.timeout;
  std::optional<WorkQueue::Reading> reading;
  if (std::optional<std::string> group = FindGroupToRead(route, request))
    reading.emplace(WorkQueue::Reading{*group, end});
  const auto shared = std::make_shared<const Request>(std::move(request));
  Start(
      connection, _workers, isWrite,
      [this, shared, end, handler = route.handler](size_t worker) {
        return CarryOut(handler, *shared, _links[worker], _reads[worker], _view, _bounds, end);
      },
      nullptr, std::move(reading));
}

// On a worker. The first reading has waited longest.
void Server::ReadAtOnce(size_t worker, const std::vector<WorkQueue::Reading>& readings) {
  if (readings.size() < 2) return _reads[worker].Forget();
  std::set<std::string> names;
  for (const WorkQueue::Reading& reading : readings) names.insert(reading.name);
  _reads[worker].Read(_links[worker], names, readings.front().end);
}

void Server::Start(Connection& connection, WorkQueue& queue, bool isWrite, WorkQueue::Work work,
                   std::function<void(Response& response)> finish, std::optional<WorkQueue::Reading> reading) {
  const WorkQueue::Number number = ++_lastNumber;
  if (!queue.Add(number, std::move(work), std::move(reading))) RefuseForNow(503, "too many requests wait", 5);
  auto timer = std::make_unique<LoopEvent>(_base, [this, &queue, number] { OnOverdue(queue, number); });
  timer->Start(_options.timeout);
  _pending.emplace(number, Pending{&connection, &queue, isWrite, false, std::move(finish), std::move(timer)});
}

// What no worker has begun is answered at once; else the worker's own time-out is about to come.
void Server::OnOverdue(WorkQueue& queue, WorkQueue::Number number) {
  Pending& pending = _pending.at(number);
  if (queue.CancelWaiting(number)) return AnswerOverdue(number, false);
  if (!pending.isOverdue) {
    pending.isOverdue = true;
    pending.timer->Start(kGraceTime);
    return;
  }
  if (queue.Cancel(number) == WorkQueue::Cancelled::kRunning) AnswerOverdue(number, true);
}

void Server::AnswerOverdue(WorkQueue::Number number, bool wasBegun) {
  const auto found = _pending.find(number);
  Connection* const connection = found->second.connection;
  const char* const detail =
      found->second.queue == &_hashing ? "the password was not looked at in time" : "the daemon did not answer in time";
  Refusal::Members members;
  if (found->second.isWrite) members["outcome"] = Quoted(wasBegun ? "unknown" : "nothing written");
  _pending.erase(found);
  if (connection) connection->Send(ToResponse(Refusal(504, detail, members)));
}

void Server::SendDone(WorkQueue& queue) {
  for (WorkQueue::Done& done : queue.TakeDone()) {
    const auto found = _pending.find(done.number);
    if (found == _pending.end()) continue;
    const Pending pending = std::move(found->second);
    _pending.erase(found);
    if (pending.finish) pending.finish(done.response);
    if (pending.connection) pending.connection->Send(std::move(done.response));
  }
}

void Server::LogIn(Connection& connection, const Request& request, const Origin& origin) {
  const JsonValue body = ParseJsonObject(request.body, {"password"});
  const JsonValue* const password = body.Find("password");
  if (!password || password->kind != JsonValue::Kind::kText) Refuse(400, "'password' is no string");
  _access.GetLogins().BeginAttempt(origin.address, Logins::Clock::now());
  Start(
      connection, _hashing, false,
      [hash = _access.GetPasswordHash(), given = password->text](size_t) {
        if (MatchesPassword(hash, given)) return Response{204, {}, ""};
        return ToResponse(Refusal(401, "the password is wrong"));
      },
      [this, origin](Response& response) {
        if (response.status != 204) return;
        _access.GetLogins().Succeed(origin.address, Logins::Clock::now());
        const std::string cookie = _access.GetLogins().Begin(Logins::Clock::now());
        response.headers.emplace_back("Set-Cookie", _access.FormatCookie(cookie, origin));
      });
}

Response Server::LogOut(const Request& request, const Origin& origin) {
  for (const std::string& cookie : FindCookies(request, Access::kCookie)) _access.GetLogins().End(cookie);
  _streams.EndDisallowed();
  return {204, {{"Set-Cookie", _access.FormatCookie("", origin)}}, ""};
}

}  // namespace tavix::web
