#pragma once

#include <string>

namespace tavix::daemon {

// Replaces the file at "path" by one that holds "text", for its owner only (0600): written beside it as PATH.new,
// synced, renamed, and the directory synced. Whatever fails or whenever the power goes, the file is the old one or the
// new one, whole. Throws osa::Exception that names the file and the reason; the old file
// then still stands, unless it was the directory that could not be synced: then the new one does, and may not survive a
// power cut.
void ReplaceFile(const std::string& path, const std::string& text);

}  // namespace tavix::daemon
