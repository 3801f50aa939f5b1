#pragma once

#include <string>

#include "tavix/c/tavix-settings-c.h"
#include "tavix/core/IniFile.h"

// A document of the C interface.
//
// Threads: one at a time.
struct tavix_document {
  tavix::core::IniFile settings;
  std::string text;  // as it was printed last
};
