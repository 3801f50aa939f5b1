#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

#include "programs/web/http/Message.h"

namespace tavix::web {

// A file that is a part of the program, compressed as gzip does (RFC 1952). cmake/EmbedFiles.cmake makes them. A plain
// value that does not change.
struct EmbeddedFile {
  const char* name;  // below the root of what is served, such as "index.html"
  const char* type;  // of its content
  const unsigned char* bytes;
  size_t size;
  const char* tag;       // a hash of these bytes
  const char* plainTag;  // the same of the file itself

  // The file itself. Throws osa::Exception when the bytes are damaged.
  std::string Expand() const;
};

// All of them.
struct EmbeddedFiles {
  const EmbeddedFile* first;
  const EmbeddedFile* last;

  const EmbeddedFile* begin() const { return first; }
  const EmbeddedFile* end() const { return last; }
};
EmbeddedFiles GetEmbeddedFiles();

// Null when there is none of that name.
const EmbeddedFile* FindEmbeddedFile(std::string_view name);

// The file as it is, or expanded for a client that does not take it so; 304 for one that has it.
Response AnswerByFile(const EmbeddedFile& file, const Request& request);

}  // namespace tavix::web
