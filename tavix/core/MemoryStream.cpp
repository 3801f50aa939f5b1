#include "tavix/core/MemoryStream.h"

namespace tavix::core {

int ViewIstream::GetMark() {
  static const int mark = std::ios_base::xalloc();
  return mark;
}

}  // namespace tavix::core
