// Whatever sequence of calls is made through the C interface, and whatever a server sends, each call returns a code,
// and nothing is leaked.
//
// The input is a program, in which a byte is a call, and some that follow are its arguments; behind a byte 0xFF it is
// what the server sends, a piece whenever it has received something. Pieces end at a byte 0xFD.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "tavix/c/tavix-settings-c.h"
#include "tavix/osa/Descriptor.h"

using tavix::osa::Descriptor;

namespace {

constexpr int32_t kTimeout = 20;  // milliseconds: a server that is wrong may be silent
constexpr size_t kMaxCalls = 24;

void Require(bool condition) {
  if (!condition) std::abort();
}

// Codes are known ones, and the error has the same.
void RequireCode(int32_t code, const tavix_error& error) {
  Require(code >= TAVIX_OK && code <= TAVIX_INTERNAL && error.code == code);
  Require((code == TAVIX_OK) == (error.text[0] == '\0'));
}

// Takes arguments off the input.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : _rest(reinterpret_cast<const char*>(data), size) {}

  bool IsEmpty() const { return _rest.empty(); }

  uint8_t TakeByte() {
    if (_rest.empty()) return 0;
    const auto byte = static_cast<uint8_t>(_rest.front());
    _rest.remove_prefix(1);
    return byte;
  }

  // At most 15 bytes, by a byte of their size.
  std::string TakeText() {
    const size_t wanted = TakeByte() & 0xFU;
    const size_t size = std::min(wanted, _rest.size());
    std::string text(_rest.substr(0, size));
    _rest.remove_prefix(size);
    return text;
  }

  // What follows the first 0xFF, which is taken off.
  std::string_view SplitServerSide() {
    const size_t at = _rest.find('\xff');
    if (at == std::string_view::npos) return {};
    const std::string_view side = _rest.substr(at + 1);
    _rest = _rest.substr(0, at);
    return side;
  }

 private:
  std::string_view _rest;
};

// Listens on a unix socket of its own name, for as long as the process lives.
class Listener {
 public:
  Listener() : _socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    char folder[] = "/tmp/tavix-fuzz.XXXXXX";
    Require(mkdtemp(folder) != nullptr);
    _folder = folder;
    _path = _folder + "/server";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, _path.c_str(), _path.size() + 1);
    Require(bind(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    Require(listen(_socket.Get(), 16) == 0);
  }
  ~Listener() {
    unlink(_path.c_str());
    rmdir(_folder.c_str());
  }

  std::string GetAddress() const { return "unix:" + _path; }
  int GetDescriptor() const { return _socket.Get(); }

 private:
  const Descriptor _socket;
  std::string _folder;
  std::string _path;
};

// Accepts connections one after the other, and answers whatever comes by the next piece, until it is ended.
class Server {
 public:
  Server(const Listener& listener, std::string_view pieces) : _listener(listener.GetDescriptor()), _pieces(pieces) {
    int ends[2];
    Require(pipe(ends) == 0);
    _stop.Reset(ends[0]);
    _stopper.Reset(ends[1]);
    _thread = std::thread([this] { Run(); });
  }
  ~Server() {
    _stopper.Reset();
    _thread.join();
  }

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

 private:
  // Several connections: a client and a watch may be open at once.
  void Run() {
    std::array<Descriptor, 4> peers;
    size_t next = 0;
    while (true) {
      std::array<pollfd, 6> waits{pollfd{_stop.Get(), POLLIN, 0}, pollfd{_listener, POLLIN, 0}};
      for (size_t i = 0; i < peers.size(); ++i) waits[i + 2] = {peers[i].Get(), POLLIN, 0};
      poll(waits.data(), waits.size(), -1);
      if (waits[0].revents != 0) return;
      for (size_t i = 0; i < peers.size(); ++i) {
        if (waits[i + 2].revents != 0) Answer(peers[i]);
      }
      if (waits[1].revents != 0) peers[next++ % peers.size()].Reset(accept(_listener, nullptr, nullptr));
    }
  }

  // A piece that begins with 0xFE ends the connection.
  void Answer(Descriptor& peer) {
    char buffer[65536];
    if (recv(peer.Get(), buffer, sizeof buffer, MSG_DONTWAIT) <= 0) return peer.Reset();
    const std::string_view piece = _pieces.substr(0, _pieces.find('\xfd'));
    _pieces.remove_prefix(std::min(piece.size() + 1, _pieces.size()));
    if (!piece.empty() && piece.front() == '\xfe') return peer.Reset();
    send(peer.Get(), piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  const int _listener;
  std::string_view _pieces;
  Descriptor _stop;
  Descriptor _stopper;
  std::thread _thread;
};

// Two documents, a client and a watch, and the calls with them.
class Program {
 public:
  Program(Input& input, std::string address) : _input(input), _address(std::move(address)) {
    for (tavix_document*& document : _documents) RequireCode(tavix_document_new(&document, &_error), _error);
  }
  ~Program() {
    for (tavix_document* document : _documents) tavix_document_free(document);
    tavix_close(_client);
    tavix_watch_close(_watch);
  }

  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void RunCall() {
    const uint8_t call = _input.TakeByte();
    switch (call % 4) {
      case 0:
        return RequireCode(ChangeDocument(call / 4), _error);
      case 1:
        return RequireCode(ReadDocument(call / 4), _error);
      case 2:
        return RequireCode(UseClient(call / 4), _error);
      default:
        return RequireCode(UseWatch(call / 4), _error);
    }
  }

 private:
  tavix_document* Document() { return _documents[_input.TakeByte() % 2]; }

  int32_t ChangeDocument(int call) {
    tavix_document* const document = Document();
    const std::string group = _input.TakeText();
    const std::string key = _input.TakeText();
    switch (call % 6) {
      case 0: {
        const std::string value = _input.TakeText();
        return tavix_document_set(document, group.data(), group.size(), key.data(), key.size(), value.data(),
                                  value.size(), &_error);
      }
      case 1:
        return tavix_document_set_group(document, group.data(), group.size(), &_error);
      case 2:
        return tavix_document_unset(document, group.data(), group.size(), key.data(), key.size(), &_error);
      case 3:
        return tavix_document_unset_group(document, group.data(), group.size(), &_error);
      case 4:
        return tavix_document_parse(document, key.data(), key.size(), &_error);
      default:
        return tavix_document_set_z(document, group.c_str(), key.c_str(), key.c_str(), &_error);
    }
  }

  // What a document prints is what it holds.
  int32_t ReadDocument(int call) {
    tavix_document* const document = Document();
    const char* bytes = nullptr;
    const char* value = nullptr;
    size_t size = 0;
    size_t valueSize = 0;
    int32_t code = TAVIX_OK;
    switch (call % 4) {
      case 0:
        code = tavix_document_print(document, &bytes, &size, &_error);
        Require(bytes[size] == '\0' && std::memchr(bytes, '\0', size) == nullptr);
        return code;
      case 1: {
        size_t left = 0;
        tavix_document_count(document, &left, &_error);
        for (; (code = tavix_document_next_group(document, &bytes, &size, &_error)) == TAVIX_OK; --left)
          Require(left > 0);
        Require(left == 0);
        return code;
      }
      case 2: {
        const std::string group = _input.TakeText();
        while ((code = tavix_document_next_key(document, group.data(), group.size(), &bytes, &size, &value, &valueSize,
                                               &_error)) == TAVIX_OK)
          Require(value[valueSize] == '\0');
        return code;
      }
      default: {
        const std::string key = _input.TakeText();
        return tavix_document_get_z(document, key.c_str(), key.c_str(), &value, &_error);
      }
    }
  }

  int32_t UseClient(int call) {
    if (!_client) return tavix_open(_address.data(), _address.size(), kTimeout, &_client, &_error);
    const std::string name = _input.TakeText();
    const char* const names[] = {name.data()};
    const size_t sizes[] = {name.size()};
    switch (call % 10) {
      case 8: {
        tavix_document* const document = Document();
        return tavix_amend(_client, document, document, Document(), document, Document(), &_error);
      }
      case 0: {
        tavix_document* found = nullptr;
        const int32_t code = tavix_get(_client, names, sizes, 1, &found, &_error);
        Require((code == TAVIX_OK) == (found != nullptr));
        tavix_document_free(found);
        return code;
      }
      case 1: {
        const char* value = nullptr;
        return tavix_get_value_z(_client, name.c_str(), name.c_str(), &value, &_error);
      }
      case 2:
        return tavix_merge(_client, Document(), _input.TakeByte() % 3, &_error);
      case 3:
        return tavix_overwrite(_client, names, sizes, 1, Document(), &_error);
      case 4:
        return tavix_erase(_client, names, sizes, 1, &_error);
      case 5:
        return tavix_restore(_client, names, sizes, 1, &_error);
      case 6:
        return tavix_flush(_client, &_error);
      case 7:
        return tavix_test_and_merge(_client, Document(), Document(), &_error);
      default:
        tavix_close(_client);
        return tavix_open(_address.data(), _address.size(), kTimeout, &_client, &_error);
    }
  }

  int32_t UseWatch(int call) {
    if (!_watch) {
      const std::string name = _input.TakeText();
      const char* const names[] = {name.data()};
      const size_t sizes[] = {name.size()};
      return tavix_watch_open(_address.data(), _address.size(), names, sizes, 1, call % 2, kTimeout, &_watch, &_error);
    }
    if (call % 8 == 0) {
      int32_t fd = -1;
      const int32_t code = tavix_watch_fd(_watch, &fd, &_error);
      Require((code == TAVIX_OK) == (fd >= 0));
      return code;
    }
    const tavix_change* change = nullptr;
    const int32_t code = tavix_watch_next(_watch, call % 8, &change, &_error);
    Require((code == TAVIX_OK) == (change != nullptr));
    if (change && change->kind == TAVIX_CHANGE_KEY) Require(change->key && (change->old_value || change->new_value));
    return code;
  }

  Input& _input;
  const std::string _address;
  tavix_error _error;
  tavix_document* _documents[2] = {};
  tavix_client* _client = nullptr;
  tavix_watch* _watch = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Listener listener;
  Input input(data, size);
  const Server server(listener, input.SplitServerSide());
  Program program(input, listener.GetAddress());
  for (size_t calls = 0; calls < kMaxCalls && !input.IsEmpty(); ++calls) program.RunCall();
  return 0;
}
