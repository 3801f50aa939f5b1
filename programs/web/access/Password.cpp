#include "programs/web/access/Password.h"

#include <argon2.h>
#include <sys/random.h>

#include "tavix/osa/Exception.h"

namespace tavix::web {

namespace {

// 16 MiB for a moment, which a small device has, and about a tenth of a second on it.
constexpr uint32_t kPasses = 3;
constexpr uint32_t kKibibytes = 16 * 1024;
constexpr uint32_t kLanes = 1;
constexpr size_t kHashBytes = 32;
constexpr size_t kSaltBytes = 16;
constexpr char kBegin[] = "$argon2id$";

}  // namespace

std::string HashPassword(const std::string& password) {
  unsigned char salt[kSaltBytes];
  if (getrandom(salt, sizeof salt, 0) != sizeof salt) throw osa::Exception("Failed to get random bytes");
  char text[256];
  const int error = argon2id_hash_encoded(kPasses, kKibibytes, kLanes, password.data(), password.size(), salt,
                                          sizeof salt, kHashBytes, text, sizeof text);
  if (error != ARGON2_OK) throw osa::Exception("Failed to hash a password: %s", argon2_error_message(error));
  return text;
}

bool IsPasswordHash(const std::string& text) {
  return text.compare(0, sizeof kBegin - 1, kBegin) == 0 && text.find_first_of(" \t\n") == std::string::npos;
}

bool MatchesPassword(const std::string& hash, const std::string& password) {
  return argon2id_verify(hash.c_str(), password.data(), password.size()) == ARGON2_OK;
}

}  // namespace tavix::web
