#pragma once

namespace tavix::web {

// Writes a line of this program's to standard error, of a level that the system's journal understands.
void PrintError(const char* text);

}  // namespace tavix::web
