#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace tavix::bench {

// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;

  // descriptor: a system call's result. what: that call, for the osa::Exception that a negative one throws.
  Descriptor(int descriptor, const char* what);
  Descriptor(Descriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor();

  int Get() const { return _descriptor; }

 private:
  int _descriptor = -1;
};

// The two ends, reading and writing; closed on exec.
std::pair<Descriptor, Descriptor> MakePipe();

// All throw osa::Exception when the descriptor fails; ReadAll also when it ends before "count" bytes.
void WriteAll(const Descriptor& descriptor, std::string_view bytes);
void ReadAll(const Descriptor& descriptor, char* buffer, size_t count);
std::string ReadToEnd(const Descriptor& descriptor);

// As ReadAll, but false when it ends or fails first.
[[nodiscard]] bool TryReadAll(const Descriptor& descriptor, char* buffer, size_t count);

// One line without its line feed.
std::string ReadLine(const Descriptor& descriptor);

}  // namespace tavix::bench
