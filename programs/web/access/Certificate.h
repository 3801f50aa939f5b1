#pragma once

#include <memory>

#include "programs/web/http/Encryption.h"
#include "programs/web/options/Options.h"

namespace tavix::web {

// The encryption that the options ask for, by what the files hold now; null when they ask for none. Throws
// osa::Exception that names the option or the file.
std::unique_ptr<const Encryption> LoadEncryption(const Options& options);

}  // namespace tavix::web
