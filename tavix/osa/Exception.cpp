#include "tavix/osa/Exception.h"

#include <cstdarg>
#include <cstdio>

namespace tavix::osa {

namespace {

std::string Format(const char* format, va_list arguments) {
  va_list measured;
  va_copy(measured, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) return format;
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, arguments);
  text.pop_back();
  return text;
}

}  // namespace

// The base is assigned after the fact: arguments can't be read before the constructor's body starts.
Exception::Exception(const char* format, ...) : std::runtime_error("") {
  va_list arguments;
  va_start(arguments, format);
  std::string text = Format(format, arguments);
  va_end(arguments);
  static_cast<std::runtime_error&>(*this) = std::runtime_error(text);
}

}  // namespace tavix::osa
