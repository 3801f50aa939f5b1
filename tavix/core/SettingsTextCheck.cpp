#include "tavix/core/SettingsTextCheck.h"

namespace tavix::core {

void SettingsTextCheck::ReadLines(std::string_view lines) {
  _reader.ReadLines(lines.data(), lines.data() + lines.size());
}

}  // namespace tavix::core
