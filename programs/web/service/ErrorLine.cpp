#include "programs/web/service/ErrorLine.h"

#include <cstdio>

#include "programs/common/ServiceManager.h"

namespace tavix::web {

void PrintError(const char* text) {
  const char* const level = programs::ServiceManager::HasJournal() ? "<3>" : "";
  std::fprintf(stderr, "%stavix-settings-web: %s\n", level, text);
}

}  // namespace tavix::web
