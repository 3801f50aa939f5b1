#include "tests/support/TemporaryDirectory.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace tavix::test {

namespace {

void Require(bool success, const std::string& path) {
  if (!success) throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() : _path(std::filesystem::temp_directory_path() / "tavix-test-XXXXXX") {
  Require(mkdtemp(_path.data()) != nullptr, _path);
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

std::string TemporaryDirectory::Path(const std::string& name) const {
  return _path + "/" + name;
}

std::string TemporaryDirectory::Write(const std::string& name, const std::string& text) const {
  std::ofstream file(Path(name), std::ios::binary);
  file << text << std::flush;
  Require(file.good(), Path(name));
  return Path(name);
}

std::string TemporaryDirectory::Read(const std::string& name) const {
  std::ifstream file(Path(name), std::ios::binary);
  Require(file.good(), Path(name));
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

bool TemporaryDirectory::Has(const std::string& name) const {
  return std::filesystem::exists(std::filesystem::symlink_status(Path(name)));
}

}  // namespace tavix::test
