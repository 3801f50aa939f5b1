#include "tavix/c/CallResult.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

#include "tavix/settings/client/ProtocolException.h"

namespace tavix::c {

using settings::client::ProtocolException;

namespace {

int32_t CodeOf(ProtocolException::Reason reason) {
  switch (reason) {
    case ProtocolException::Reason::kUsage:
      return TAVIX_USAGE;
    case ProtocolException::Reason::kTimedOut:
      return TAVIX_TIMEOUT;
    case ProtocolException::Reason::kUnreachable:
    case ProtocolException::Reason::kLost:
    case ProtocolException::Reason::kDropped:
      return TAVIX_LOST;
    case ProtocolException::Reason::kNotProtocol:
    case ProtocolException::Reason::kTooLarge:
    case ProtocolException::Reason::kUnreadable:
      return TAVIX_PARSE;
    case ProtocolException::Reason::kNoResources:
      return TAVIX_BUSY;
    case ProtocolException::Reason::kTooOld:
      return TAVIX_UNSUPPORTED;
  }
  return TAVIX_INTERNAL;
}

constexpr char kNoMemory[] = "memory ran out";

// Of the exception that is being handled. All of osa::Exception that the library throws for others than clients are of
// settings text.
int32_t ReportException(tavix_error* error) noexcept {
  try {
    throw;
  } catch (const CallFailure& failure) {
    return Report(error, failure.GetCode(), failure.what());
  } catch (const ProtocolException& exception) {
    return Report(error, CodeOf(exception.GetReason()), exception.what());
  } catch (const osa::Exception& exception) {
    return Report(error, TAVIX_PARSE, exception.what());
  } catch (const std::bad_alloc&) {
    return Report(error, TAVIX_NO_MEMORY, kNoMemory);
  } catch (const std::length_error&) {
    return Report(error, TAVIX_NO_MEMORY, kNoMemory);
  } catch (const std::exception& exception) {
    return Report(error, TAVIX_INTERNAL, exception.what());
  } catch (...) {
    return Report(error, TAVIX_INTERNAL, "an error of an unknown kind");
  }
}

}  // namespace

int32_t RunCall(const char* function, tavix_error* error, std::initializer_list<Argument> arguments,
                CallBody body) noexcept {
  try {
    for (const Argument& argument : arguments) {
      if (!argument.pointer)
        throw CallFailure(TAVIX_USAGE, std::string(function) + ": \"" + argument.name + "\" is null");
    }
    const int32_t code = body.Run();
    if (code == TAVIX_OK) Report(error, TAVIX_OK, "");
    return code;
  } catch (...) {
    return ReportException(error);
  }
}

int32_t Report(tavix_error* error, int32_t code, const char* text) noexcept {
  if (!error) return code;
  error->code = code;
  const size_t size = std::min(std::strlen(text), sizeof error->text - 1);
  std::memcpy(error->text, text, size);
  error->text[size] = '\0';
  return code;
}

size_t SizeOf(const char* text) noexcept {
  return text ? std::strlen(text) : 0;
}

int32_t GiveString(int32_t code, const char* bytes, size_t size, const char** out, tavix_error* error) noexcept {
  if (code != TAVIX_OK) return code;
  if (std::strlen(bytes) != size)
    return Report(error, TAVIX_PARSE, "what is read holds a NUL byte, which no C string can");
  *out = bytes;
  return TAVIX_OK;
}

}  // namespace tavix::c

extern "C" {

const char* tavix_code_name(int32_t code) {
  constexpr const char* kNames[] = {"OK",    "NOT_SET", "CONDITION", "TIMEOUT", "LOST",        "REFUSED",
                                    "PARSE", "USAGE",   "NO_MEMORY", "BUSY",    "UNSUPPORTED", "INTERNAL"};
  constexpr int32_t kCount = sizeof kNames / sizeof *kNames;
  return code >= 0 && code < kCount ? kNames[code] : "UNKNOWN";
}

}  // extern "C"
