#pragma once

#include <string>

namespace tavix::web {

// A text of argon2id (RFC 9106) for a password. Throws osa::Exception.
std::string HashPassword(const std::string& password);

// Whether the text is one, as far as it shows without a password.
bool IsPasswordHash(const std::string& text);

// Takes the time and the memory that the text asks for. A failure is false.
bool MatchesPassword(const std::string& hash, const std::string& password);

}  // namespace tavix::web
