#include "programs/server/OutputQueue.h"

#include <sys/socket.h>

#include <cerrno>
#include <locale>
#include <utility>

namespace tavix::daemon {

namespace {

constexpr size_t kKeptMemory = 4 * 1024;  // an idle connection keeps no more than this

void ReleaseMemory(std::string& text) {
  text.clear();
  if (text.capacity() > kKeptMemory) std::string().swap(text);
}

}  // namespace

OutputQueue::OutputQueue(int descriptor, size_t most, std::function<void()> onKept)
    : _descriptor(descriptor), _most(most), _onKept(std::move(onKept)), _ostream(this) {
  _ostream.imbue(std::locale::classic());
}

size_t OutputQueue::Send() {
  std::lock_guard<std::mutex> lock(_mutex);
  if (_broken) return 0;
  const size_t sent = SendSome(_kept.data() + _sent, _kept.size() - _sent);
  _sent += sent;
  if (_sent == _kept.size()) {
    _sent = 0;
    ReleaseMemory(_kept);
  } else if (_sent > _kept.size() / 2) {
    _kept.erase(0, _sent);
    _sent = 0;
  }
  return _kept.size() - _sent;
}

size_t OutputQueue::GetKeptBytes() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _kept.size() - _sent;
}

bool OutputQueue::IsBroken() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _broken;
}

bool OutputQueue::IsOverfull() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _overfull;
}

OutputQueue::Clock::time_point OutputQueue::GetLastProgress() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _lastProgress;
}

OutputQueue::int_type OutputQueue::overflow(int_type character) {
  if (!traits_type::eq_int_type(character, traits_type::eof()))
    _message.push_back(traits_type::to_char_type(character));
  return traits_type::not_eof(character);
}

std::streamsize OutputQueue::xsputn(const char* bytes, std::streamsize count) {
  _message.append(bytes, static_cast<size_t>(count));
  return count;
}

int OutputQueue::sync() {
  std::lock_guard<std::mutex> lock(_mutex);
  if (!_broken) {
    const size_t sent = _kept.empty() ? SendSome(_message.data(), _message.size()) : 0;
    if (sent < _message.size() && !_broken) Keep(_message.data() + sent, _message.size() - sent);
  }
  ReleaseMemory(_message);
  return _broken ? -1 : 0;
}

// The caller holds the lock, here and below.
size_t OutputQueue::SendSome(const char* bytes, size_t count) {
  size_t done = 0;
  while (done < count) {
    const ssize_t sent = send(_descriptor, bytes + done, count - done, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) {
      done += static_cast<size_t>(sent);
    } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      break;
    } else if (sent == 0 || errno != EINTR) {
      Break();
      break;
    }
  }
  if (done > 0) _lastProgress = Clock::now();
  return done;
}

void OutputQueue::Keep(const char* bytes, size_t count) {
  const bool first = _kept.empty();
  if (first) _lastProgress = Clock::now();
  _kept.append(bytes, count);
  if (_kept.size() - _sent > _most) {
    _overfull = true;
    Break();
  } else if (first) {
    _onKept();
  }
}

void OutputQueue::Break() {
  _broken = true;
  shutdown(_descriptor, SHUT_RDWR);  // the loop is told by the socket
  _sent = 0;
  std::string().swap(_kept);
  _onKept();
}

}  // namespace tavix::daemon
