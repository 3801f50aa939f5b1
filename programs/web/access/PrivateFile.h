#pragma once

#include <string>

namespace tavix::web {

// The text of a file that holds secrets. Throws osa::Exception, with the file's name, when it can't be read, when
// others than its owner may read or write it, and when that is neither root nor this program's user. A credential of
// the service manager's, a file of $CREDENTIALS_DIRECTORY, may be readable by its group.
std::string ReadPrivateFile(const std::string& path);

// The same of a file that anybody may read, or write.
std::string ReadPublicFile(const std::string& path);

// 256 bits that nobody can guess, as 64 digits. Throws osa::Exception when the system has none.
std::string MakeSecret();

// Whether two texts are equal, in a time that depends on their lengths alone.
bool AreEqualSecrets(const std::string& left, const std::string& right);

}  // namespace tavix::web
