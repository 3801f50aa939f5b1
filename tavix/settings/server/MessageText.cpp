#include "tavix/settings/server/MessageText.h"

namespace tavix::settings::server {

namespace {

constexpr size_t kKeptMemory = 16 * 1024;

struct ThreadStream {
  core::StringOstream stream;
  bool isInUse = false;
};

ThreadStream& OfThisThread() {
  static thread_local ThreadStream stream;
  return stream;
}

}  // namespace

MessageText::MessageText() {
  ThreadStream& kept = OfThisThread();
  _stream = kept.isInUse ? &_own.emplace() : &kept.stream;
  kept.isInUse = true;
}

MessageText::~MessageText() {
  if (_own) return;
  _stream->Reset(kKeptMemory);
  OfThisThread().isInUse = false;
}

}  // namespace tavix::settings::server
