#pragma once

#include <string>

namespace tavix::bridge {

// How a device proves who it is, from a file of lines KEY=VALUE; a value is what stands behind the "=" to the line's
// end. Blank lines and lines that begin with "#" count for nothing. A plain value.
//
//     user=camera-7            name and password, where they are asked for
//     password=...
//     certificate=FILE         of TLS, in PEM, where the other side asks for one, and its key
//     key=FILE
//
// It is read again for each link, so that it can be exchanged. Nothing of it is ever part of an error's text.
struct Credentials {
  std::string user;
  std::string password;
  std::string certificate;
  std::string key;
};

// file: empty: none. Also has the kernel write no memory of this process to core dumps any more: the libraries keep
// copies. Throws osa::Exception, naming the file: it can't be read, may be read or written by all users of the device
// (it, or the file of the key), or holds something else.
Credentials ReadCredentials(const std::string& file);

// Whether this host can be nothing but the device itself, to which alone data may go without TLS.
bool IsLoopback(const std::string& host);

}  // namespace tavix::bridge
