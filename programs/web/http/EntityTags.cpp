#include "programs/web/http/EntityTags.h"

#include <algorithm>

#include "programs/common/client/Join.h"

namespace tavix::web {

bool NamesVersion(const std::string& tags, const std::string& version, bool comparesWeakly) {
  if (tags == "*") return true;
  const std::string tag = programs::Join({"\"", version, "\""});
  for (size_t at = 0; at < tags.size();) {
    const size_t begin = tags.find_first_not_of(" \t", at);
    if (begin == std::string::npos) return false;
    const size_t end = std::min(tags.find(',', begin), tags.size());
    const std::string one = tags.substr(begin, end - begin);
    const std::string given = one.substr(0, one.find_last_not_of(" \t") + 1);
    if (given == tag || (comparesWeakly && given == "W/" + tag)) return true;
    at = end + 1;
  }
  return false;
}

}  // namespace tavix::web
