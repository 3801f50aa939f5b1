#include "tavix/osa/PipeStreamPair.h"

#include <atomic>
#include <condition_variable>
#include <locale>
#include <string>

#include "tavix/osa/InputWatch.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::osa {

namespace {

constexpr size_t kFlushedUnasked = 64 * 1024;  // what a writer that never flushes keeps to itself at most
constexpr size_t kKeptBuffer = 4 * 1024;

class ByteQueue final : public InputWatch {
 public:
  bool Append(const std::string& bytes) {
    PlainMutexLock lock(_mutex);
    if (_closed) return false;
    _bytes.append(bytes);
    _readable.notify_one();
    if (!_isPaused) _awaited.notify_one();
    return true;
  }

  // Waits for bytes and moves all of them into "out"; false at the end.
  bool TakeAll(std::string& out) {
    out.clear();
    PlainMutexLock lock(_mutex);
    lock.Wait(_readable, [this]() TAVIX_REQUIRES(_mutex) { return _closed || !_bytes.empty(); });
    out.swap(_bytes);
    return !out.empty();
  }

  void Close() {
    PlainMutexLock lock(_mutex);
    _closed = true;
    _readable.notify_all();
    _awaited.notify_all();
  }

  bool IsClosed() const { return _closed; }

  bool Await() noexcept override {
    PlainMutexLock lock(_mutex);
    while (!_isWoken && !HasInput()) lock.Wait(_awaited);
    _isWoken = false;
    return HasInput();
  }

  void Pause() noexcept override {
    PlainMutexLock lock(_mutex);
    _isPaused = true;
  }

  void Resume() noexcept override {
    PlainMutexLock lock(_mutex);
    _isPaused = false;
    if (HasInput()) _awaited.notify_one();
  }

  void Wake() noexcept override {
    PlainMutexLock lock(_mutex);
    _isWoken = true;
    _awaited.notify_one();
  }

 private:
  // That the watch is to report.
  bool HasInput() const TAVIX_REQUIRES(_mutex) { return _closed || (!_isPaused && !_bytes.empty()); }

  PlainMutex _mutex;
  std::condition_variable _readable;
  std::condition_variable _awaited;
  bool _isPaused TAVIX_GUARDED_BY(_mutex) = false;
  bool _isWoken TAVIX_GUARDED_BY(_mutex) = false;
  std::string _bytes TAVIX_GUARDED_BY(_mutex);
  std::atomic<bool> _closed{false};  // written under _mutex
};

class ReadingEnd : public std::streambuf {
 public:
  explicit ReadingEnd(ByteQueue& queue) : _queue(queue) {}

 protected:
  int_type underflow() override {
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    if (_current.capacity() > kKeptBuffer) std::string().swap(_current);
    if (!_queue.TakeAll(_current)) {
      setg(nullptr, nullptr, nullptr);
      return traits_type::eof();
    }
    setg(&_current[0], &_current[0], &_current[0] + _current.size());
    return traits_type::to_int_type(*gptr());
  }

 private:
  ByteQueue& _queue;
  std::string _current;
};

class WritingEnd : public std::streambuf {
 public:
  explicit WritingEnd(ByteQueue& queue) : _queue(queue) {}

 protected:
  int_type overflow(int_type character) override {
    if (traits_type::eq_int_type(character, traits_type::eof())) return traits_type::not_eof(character);
    const char byte = traits_type::to_char_type(character);
    return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
  }

  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    if (_queue.IsClosed()) return 0;
    _unflushed.append(bytes, static_cast<size_t>(count));
    if (_unflushed.size() >= kFlushedUnasked && sync() != 0) return 0;
    return count;
  }

  int sync() override {
    if (_queue.IsClosed()) return -1;
    if (_unflushed.empty()) return 0;
    const bool taken = _queue.Append(_unflushed);
    _unflushed.clear();
    if (_unflushed.capacity() > kKeptBuffer) std::string().swap(_unflushed);
    return taken ? 0 : -1;
  }

 private:
  ByteQueue& _queue;
  std::string _unflushed;
};

}  // namespace

struct PipeStreamPair::State {
  State() : readingEnd(queue), writingEnd(queue), istream(&readingEnd), ostream(&writingEnd) {
    istream.imbue(std::locale::classic());
    ostream.imbue(std::locale::classic());
  }

  ByteQueue queue;
  ReadingEnd readingEnd;
  WritingEnd writingEnd;
  std::istream istream;
  std::ostream ostream;
};

PipeStreamPair::PipeStreamPair() : _state(std::make_unique<State>()) {}

PipeStreamPair::~PipeStreamPair() = default;

std::istream* PipeStreamPair::GetIstream() {
  return &_state->istream;
}

std::ostream* PipeStreamPair::GetOstream() {
  return &_state->ostream;
}

InputWatch& PipeStreamPair::GetWatch() {
  return _state->queue;
}

void PipeStreamPair::ClosePipe() {
  _state->queue.Close();
}

bool PipeStreamPair::IsClosed() const {
  return _state->queue.IsClosed();
}

}  // namespace tavix::osa
