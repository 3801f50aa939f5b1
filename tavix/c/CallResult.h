#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

#include "tavix/c/tavix-settings-c.h"
#include "tavix/osa/Exception.h"

// What the functions of the C interface are made of: null pointers are looked for, and exceptions become codes.
//
// Threads: any.
namespace tavix::c {

// Thrown inside of the interface: the code that the call returns, and its text.
class CallFailure : public osa::Exception {
 public:
  CallFailure(int32_t code, const std::string& text) : osa::Exception(text), _code(code) {}

  int32_t GetCode() const { return _code; }

 private:
  int32_t _code;
};

// A pointer that may not be null.
struct Argument {
  const char* name;
  const void* pointer;
};

// A call's body, which returns a code. It does not outlive the call.
class CallBody {
 public:
  // Not explicit, so that a call passes its lambda as it stands.
  template <class Body>
  CallBody(const Body& body)
      : _body(&body), _run([](const void* callable) { return (*static_cast<const Body*>(callable))(); }) {}

  int32_t Run() const { return _run(_body); }

 private:
  const void* const _body;
  int32_t (*const _run)(const void* body);
};

// Runs a body unless one of the arguments is null. function: for error texts. error: may be null.
int32_t RunCall(const char* function, tavix_error* error, std::initializer_list<Argument> arguments,
                CallBody body) noexcept;

// Writes the outcome of a call, and returns its code. error: may be null.
int32_t Report(tavix_error* error, int32_t code, const char* text) noexcept;

// For functions of C strings over those of bytes. The size of a null pointer is 0: the other function reports it.
size_t SizeOf(const char* text) noexcept;

// Gives a C string for the bytes that a call has given, unless it failed or they hold a NUL byte.
int32_t GiveString(int32_t code, const char* bytes, size_t size, const char** out, tavix_error* error) noexcept;

}  // namespace tavix::c
