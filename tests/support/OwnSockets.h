#pragma once

#include <vector>

namespace tavix::test {

// The descriptors of this process's connections to that port on 127.0.0.1. They are borrowed.
std::vector<int> FindConnectionsTo(unsigned short port);

// Fills the kernel's output buffer of a connection with line feeds, so that whoever writes to it next has to wait.
void FillOutput(int descriptor);

}  // namespace tavix::test
