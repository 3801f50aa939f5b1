#pragma once

#include <istream>
#include <string>
#include <string_view>

#include "tavix/core/MemoryStream.h"
#include "tavix/settings/common/DelimitedValues.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings::server {

class ISettingsSerializer;

// What a handler reads requests from: any stream, or a view of bytes, which are then read where they lie.
//
// Threads: the handler's.
// Owns:    neither stream nor view; it outlives the object.
// Errors:  as a stream: a line or payload that the end of the input cuts off leaves the input not good.
class RequestInput {
 public:
  explicit RequestInput(std::istream& in) : _in(in) {}
  explicit RequestInput(core::ViewIstream& view) : _in(view), _view(&view) {}

  // Null: the input is a stream that is no view.
  core::ViewIstream* GetView() const { return _view; }

  bool IsGood() const { return _in.good(); }

  // As std::getline. line: valid until the next call.
  bool TakeLine(std::string_view& line);

  // Reads a list, terminator included, and assigns each value to "target".
  template <class Target>
  void TakeList(Target target) {
    if (_view) {
      common::readDelimitedValues(_view, target);
    } else {
      common::readDelimitedValues(&_in, target);
    }
  }

  // As ISettingsSerializer's.
  void TakePayload(const ISettingsSerializer& serializer, core::IniFile& document);
  void SkipPayloadEnd(const ISettingsSerializer& serializer);

 private:
  std::istream& _in;
  core::ViewIstream* const _view = nullptr;  // the same input
  std::string _line;                         // the last one of a stream; kept for its memory
};

}  // namespace tavix::settings::server
