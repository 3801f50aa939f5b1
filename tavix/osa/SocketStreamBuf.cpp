#include "tavix/osa/SocketStreamBuf.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tavix/osa/InputWatch.h"
#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

namespace {

constexpr size_t kSmallestBuffer = 1024;
constexpr size_t kLargestBuffer = 64 * 1024;
constexpr size_t kKeptBuffer = 4 * 1024;  // an idle connection keeps no more than this

}  // namespace

SocketOutputBuf::int_type SocketOutputBuf::overflow(int_type character) {
  if (traits_type::eq_int_type(character, traits_type::eof())) return traits_type::not_eof(character);
  const char byte = traits_type::to_char_type(character);
  return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
}

std::streamsize SocketOutputBuf::xsputn(const char* bytes, std::streamsize count) {
  if (_failed || count <= 0) return 0;
  const auto size = static_cast<size_t>(count);
  if (size > static_cast<size_t>(epptr() - pptr()) && !Grow(size)) {
    if (sync() != 0) return 0;
    if (size >= kLargestBuffer) return SendAll(bytes, size) ? count : 0;
    Grow(size);
  }
  std::memcpy(pptr(), bytes, size);
  pbump(static_cast<int>(size));
  return count;
}

int SocketOutputBuf::sync() {
  if (_failed) return -1;
  if (Pending() == 0) return 0;
  const bool sent = SendAll(pbase(), Pending());
  if (_buffer.size() > kKeptBuffer) std::vector<char>().swap(_buffer);
  setp(_buffer.data(), _buffer.data() + _buffer.size());
  return sent ? 0 : -1;
}

// Makes room for that many more bytes; false when the message has become too large to be kept whole.
bool SocketOutputBuf::Grow(size_t atLeast) {
  const size_t used = Pending();
  if (used + atLeast > kLargestBuffer) return false;
  const size_t wanted = std::max({used + atLeast, 2 * _buffer.size(), kSmallestBuffer});
  _buffer.resize(std::min(wanted, kLargestBuffer));
  setp(_buffer.data(), _buffer.data() + _buffer.size());
  pbump(static_cast<int>(used));
  return true;
}

bool SocketOutputBuf::SendAll(const char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t sent = send(_socket.GetDescriptor(), bytes, count, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      bytes += sent;
      count -= static_cast<size_t>(sent);
    } else if (sent == 0 || (errno != EINTR && !(errno == EAGAIN && AwaitRoom()))) {
      _failed = true;
      _socket.Shutdown();
      return false;
    }
  }
  return true;
}

// A send that waited by itself would return, when its time is over, what it got rid of before; the next one would wait
// for the whole time again. False when the peer took nothing within the time limit.
bool SocketOutputBuf::AwaitRoom() const {
  if (InputWatch* const watch = _watch) watch->Resume();
  const unsigned int timeout = _timeout.load(std::memory_order_relaxed);
  const Deadline deadline(timeout == kWaitForever ? timeout : std::max(timeout, 1u));
  pollfd room{_socket.GetDescriptor(), POLLOUT, 0};
  int ready = 0;
  do {
    ready = poll(&room, 1, deadline.GetPollTimeout());
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

SocketDuplexBuf::int_type SocketDuplexBuf::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  const size_t wanted = _capacity == 0           ? kSmallestBuffer
                        : _lastRead == _capacity ? std::min(2 * _capacity, kLargestBuffer)
                                                 : std::min(_capacity, kKeptBuffer);
  if (wanted != _capacity) {
    setg(nullptr, nullptr, nullptr);
    _buffer.reset(new char[wanted]);
    _capacity = wanted;
  }
  ssize_t count = 0;
  do {
    count = recv(_socket.GetDescriptor(), _buffer.get(), _capacity, 0);
  } while (count < 0 && errno == EINTR);
  if (count <= 0) return traits_type::eof();
  _lastRead = static_cast<size_t>(count);
  setg(_buffer.get(), _buffer.get(), _buffer.get() + count);
  return traits_type::to_int_type(*gptr());
}

SocketDuplexBuf::int_type SocketDuplexBuf::overflow(int_type character) {
  if (traits_type::eq_int_type(character, traits_type::eof())) return traits_type::not_eof(character);
  return _output.sputc(traits_type::to_char_type(character));
}

std::streamsize SocketDuplexBuf::xsputn(const char* bytes, std::streamsize count) {
  return _output.sputn(bytes, count);
}

int SocketDuplexBuf::sync() {
  return _output.pubsync();
}

}  // namespace tavix::osa
