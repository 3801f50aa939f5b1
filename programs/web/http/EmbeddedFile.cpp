#include "programs/web/http/EmbeddedFile.h"

#include <algorithm>
#include <vector>

#include "programs/common/client/Join.h"
#include "programs/web/http/EntityTags.h"
#include "programs/web/http/Inflate.h"
#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"

namespace tavix::web {

using core::StringUtil;

namespace {

// Of gzip without a name, as the build makes it.
constexpr size_t kHeadBytes = 10;
constexpr size_t kTailBytes = 8;

std::string_view Trimmed(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

// Whether the parameters of a coding, such as ";q=0.5", allow it: a weight of 0 does not.
bool HasWeight(std::string_view parameters) {
  const size_t at = parameters.find('=');
  if (at == std::string_view::npos) return true;
  return Trimmed(parameters.substr(at + 1)).find_first_not_of("0.") != std::string_view::npos;
}

// RFC 9110, section 12.5.3: gzip as itself, or by '*' where it is not named. A client that names no codings, such as a
// script, gets the file itself.
bool AcceptsGzip(const Request& request) {
  bool accepts = false;
  for (const auto& [name, value] : request.headers) {
    if (name != "accept-encoding") continue;
    std::vector<std::string> codings;
    StringUtil::Split(codings, value, ",", 0);
    for (const std::string& text : codings) {
      const size_t end = std::min(text.find(';'), text.size());
      const std::string_view coding = Trimmed(std::string_view(text).substr(0, end));
      const bool isAllowed = HasWeight(std::string_view(text).substr(end));
      if (StringUtil::EqualsIgnoringCase(coding, "gzip")) return isAllowed;
      if (coding == "*") accepts = isAllowed;
    }
  }
  return accepts;
}

}  // namespace

std::string EmbeddedFile::Expand() const {
  const std::string_view all(reinterpret_cast<const char*>(bytes), size);
  if (size < kHeadBytes + kTailBytes) throw osa::Exception("The embedded file '%s' is damaged", name);
  size_t length = 0;
  for (size_t i = 1; i <= 4; ++i) length = length << 8 | bytes[size - i];
  std::string text = Inflate(all.substr(kHeadBytes, size - kHeadBytes - kTailBytes), length);
  if (text.size() != length) throw osa::Exception("The embedded file '%s' is damaged", name);
  return text;
}

const EmbeddedFile* FindEmbeddedFile(std::string_view name) {
  const EmbeddedFiles files = GetEmbeddedFiles();
  const auto found =
      std::find_if(files.begin(), files.end(), [name](const EmbeddedFile& file) { return name == file.name; });
  return found == files.end() ? nullptr : found;
}

// The two forms of a file have tags of their own: they are different bytes. A browser asks each time whether its copy
// is still the one, so that a new version of the program never meets parts of an old page.
Response AnswerByFile(const EmbeddedFile& file, const Request& request) {
  const bool isCompressed = AcceptsGzip(request);
  const std::string tag = isCompressed ? file.tag : file.plainTag;
  Headers headers{
      {"ETag", programs::Join({"\"", tag, "\""})}, {"Cache-Control", "no-cache"}, {"Vary", "Accept-Encoding"}};
  const std::string* const known = request.Find("if-none-match");
  if (known && NamesVersion(*known, tag, true)) return {304, std::move(headers), ""};
  headers.emplace_back("Content-Type", file.type);
  if (!isCompressed) return {200, std::move(headers), file.Expand()};
  headers.emplace_back("Content-Encoding", "gzip");
  Response response{200, std::move(headers), ""};
  response.lastingBody = {reinterpret_cast<const char*>(file.bytes), file.size};
  return response;
}

}  // namespace tavix::web
