#pragma once

#include <string>
#include <vector>

#include "programs/server/options/Options.h"

namespace tavix::daemon {

// One file of a layer, and why it is not loaded, if so.
struct LayerFile {
  std::string path;
  std::string notLoaded;  // empty: it is loaded
};

// Which files a layer of settings is made of, in the order in which they are merged: the paths in their order (a
// directory's *.ini in lexical order), then the drop-ins. Drop-ins are ordered by their names, whatever their
// directory. Of drop-ins with one name the one in the last directory counts; if it is empty or a link to /dev/null, the
// name is switched off. A directory of drop-ins may be missing.
//
// Looks at the file system anew at each call. Throws osa::Exception that names the directory that can't be read.
std::vector<LayerFile> ListLayerFiles(const LayerSources& sources);

}  // namespace tavix::daemon
