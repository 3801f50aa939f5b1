#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "tavix/osa/Descriptor.h"

namespace tavix::bench {

// Owns the descriptor that a system call returned. what: that call, for the osa::Exception that a negative one throws.
osa::Descriptor Checked(int descriptor, const char* what);

// The two ends, reading and writing; closed on exec.
std::pair<osa::Descriptor, osa::Descriptor> MakePipe();

// All throw osa::Exception when the descriptor fails; ReadAll also when it ends before "count" bytes.
void WriteAll(const osa::Descriptor& descriptor, std::string_view bytes);
void ReadAll(const osa::Descriptor& descriptor, char* buffer, size_t count);
std::string ReadToEnd(const osa::Descriptor& descriptor);

// As ReadAll, but false when it ends or fails first.
[[nodiscard]] bool TryReadAll(const osa::Descriptor& descriptor, char* buffer, size_t count);

// One line without its line feed.
std::string ReadLine(const osa::Descriptor& descriptor);

}  // namespace tavix::bench
