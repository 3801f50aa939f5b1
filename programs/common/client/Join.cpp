#include "programs/common/client/Join.h"

namespace tavix::programs {

std::string Join(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) text += part;
  return text;
}

}  // namespace tavix::programs
