#include "tests/support/PowerCuts.h"

#include <algorithm>
#include <utility>

namespace tavix::test {

using Kind = MemoryFiles::Operation::Kind;

namespace {

constexpr size_t kGranularities[] = {1, 512, 4096};

}  // namespace

PowerCuts::PowerCuts(const MemoryFiles::Image& image, std::vector<Operation> operations, unsigned int seed)
    : _operations(std::move(operations)), _random(seed) {
  for (const auto& [path, content] : image) {
    const size_t number = _names.size();
    _names[path] = number;
    _files[number] = {content.bytes, {}, content.modificationTime};
  }
}

bool PowerCuts::Advance() {
  if (_position == _operations.size()) return false;
  const Operation& operation = _operations[_position++];
  DiskFile& file = _files[operation.file];
  switch (operation.kind) {
    case Kind::kOpen:
    case Kind::kReserve:
      break;
    case Kind::kWrite:
    case Kind::kTruncate:
      file.unsynced.push_back(&operation);
      break;
    case Kind::kSync:
      for (const Operation* change : file.unsynced) Apply(file.synced, *change);
      file.unsynced.clear();
      break;
    case Kind::kSetTime:
      file.time = operation.time;
      break;
    case Kind::kSyncDirectory:
      for (const Operation* name : _unsyncedNames) ApplyName(_names, *name);
      _unsyncedNames.clear();
      break;
    default:
      _unsyncedNames.push_back(&operation);
  }
  return true;
}

MemoryFiles::Image PowerCuts::Cut() {
  Names names = _names;
  const size_t kept = Below(_unsyncedNames.size() + 1);
  for (size_t i = 0; i < kept; ++i) ApplyName(names, *_unsyncedNames[i]);
  MemoryFiles::Image image;
  for (const auto& [path, number] : names) {
    const DiskFile& file = _files[number];
    image[path] = {true, "", CutFile(file), Below(2) ? file.time : 0};
  }
  return image;
}

MemoryFiles::Image PowerCuts::Keep() const {
  Names names = _names;
  for (const Operation* name : _unsyncedNames) ApplyName(names, *name);
  MemoryFiles::Image image;
  for (const auto& [path, number] : names) {
    const DiskFile& file = _files.at(number);
    std::string bytes = file.synced;
    for (const Operation* change : file.unsynced) Apply(bytes, *change);
    image[path] = {true, "", std::move(bytes), file.time};
  }
  return image;
}

void PowerCuts::ApplyName(Names& names, const Operation& operation) {
  if (operation.kind == Kind::kCreate) {
    names[operation.path] = operation.file;
  } else if (operation.kind == Kind::kRemove) {
    names.erase(operation.path);
  } else if (operation.kind == Kind::kLink) {
    names[operation.to] = names.at(operation.path);
  } else {
    const auto from = names.find(operation.path);
    const auto to = names.find(operation.to);
    if (to != names.end() && to->second == from->second) return;
    names[operation.to] = from->second;
    names.erase(from);
  }
}

void PowerCuts::Apply(std::string& bytes, const Operation& change) {
  if (change.kind == Kind::kTruncate) {
    bytes.resize(static_cast<size_t>(std::min<uint64_t>(bytes.size(), change.offset)));
  } else {
    Write(bytes, change.offset, change.bytes);
  }
}

void PowerCuts::Write(std::string& bytes, uint64_t offset, std::string_view part) {
  const auto begin = static_cast<size_t>(offset);
  bytes.resize(std::max(bytes.size(), begin + part.size()), '\0');
  bytes.replace(begin, part.size(), part);
}

std::string PowerCuts::CutFile(const DiskFile& file) {
  std::string bytes = file.synced;
  enum Fate { kKept, kDropped, kZeros, kTorn, kFates };
  const size_t sameForAll = Below(2 * kFates);  // else each write has a fate of its own
  for (const Operation* write : file.unsynced) {
    const size_t fate = sameForAll < kFates ? sameForAll : Below(kFates);
    if (write->kind == Kind::kTruncate) {
      if (fate == kKept) Apply(bytes, *write);
      continue;
    }
    switch (fate) {
      case kKept:
        Apply(bytes, *write);
        break;
      case kZeros:
        bytes.resize(std::max(bytes.size(), static_cast<size_t>(write->offset) + write->bytes.size()), '\0');
        break;
      case kTorn:
        WriteSome(bytes, *write);
        break;
      default:
        break;
    }
  }
  return bytes;
}

// Single bytes: the first or the last of them. Blocks, as the file is laid out: any.
void PowerCuts::WriteSome(std::string& bytes, const Operation& write) {
  const std::string_view part = write.bytes;
  const size_t granularity = kGranularities[Below(3)];
  const auto offset = static_cast<size_t>(write.offset);
  if (granularity == 1) {
    const size_t split = Below(part.size() + 1);
    return Below(2) ? Write(bytes, write.offset, part.substr(0, split))
                    : Write(bytes, write.offset + split, part.substr(split));
  }
  for (size_t begin = 0; begin < part.size();) {
    const size_t end = std::min<size_t>(part.size(), begin + granularity - (offset + begin) % granularity);
    if (Below(2)) Write(bytes, write.offset + begin, part.substr(begin, end - begin));
    begin = end;
  }
}

}  // namespace tavix::test
