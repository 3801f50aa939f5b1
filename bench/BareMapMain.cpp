// tavix-bench-bare-map FILE: loads settings text into a bare map, prints "ready" and keeps it until its input ends.

#include <cstdio>
#include <fstream>
#include <string>

#include "bench/BareMap.h"

using namespace tavix::bench;

static std::string ReadFile(const char* path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  std::string text(static_cast<size_t>(file.tellg()), '\0');
  file.seekg(0);
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  return text;
}

int main(int argc, char** argv) {
  if (argc != 2) return 64;
  const BareMap document = ParseBareMap(ReadFile(argv[1]));
  std::puts(document.empty() ? "empty" : "ready");
  std::fflush(stdout);
  std::getchar();
  return 0;
}
