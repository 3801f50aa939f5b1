#include "tavix/c/WatchHandle.h"

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "tavix/c/CallResult.h"
#include "tavix/c/Names.h"

using tavix::c::CallFailure;
using tavix::c::CopyNames;
using tavix::c::HandleUse;
using tavix::c::MakeOptions;
using tavix::c::NameList;
using tavix::c::Report;
using tavix::c::RunCall;
using tavix::c::SizeOf;
using tavix::c::Watch;
using tavix::c::WatchedChange;
using Kind = WatchedChange::Kind;

namespace {

std::unique_ptr<tavix_watch> Open(std::string_view address, const NameList& names, int32_t flags, int32_t timeoutMs) {
  tavix::c::RequireFlags(flags, TAVIX_WATCH_INITIAL);
  return std::make_unique<tavix_watch>(MakeOptions(address, timeoutMs), CopyNames(names),
                                       (flags & TAVIX_WATCH_INITIAL) != 0);
}

std::optional<Watch::Clock::time_point> EndOf(int32_t timeoutMs) {
  if (timeoutMs == TAVIX_FOREVER) return std::nullopt;
  if (timeoutMs < 0) throw CallFailure(TAVIX_USAGE, "the time-out " + std::to_string(timeoutMs) + " is negative");
  return Watch::Clock::now() + std::chrono::milliseconds(timeoutMs);
}

int32_t ReportTimeout(const Watch& watch, tavix_error* error) {
  if (watch.GetFailure().empty()) return Report(error, TAVIX_TIMEOUT, "no change came in time");
  return Report(error, TAVIX_TIMEOUT, ("no change came in time, without a connection: " + watch.GetFailure()).c_str());
}

int32_t NumberOf(Kind kind) {
  switch (kind) {
    case Kind::kKey:
      return TAVIX_CHANGE_KEY;
    case Kind::kGroup:
      return TAVIX_CHANGE_GROUP;
    case Kind::kResync:
      break;
  }
  return TAVIX_CHANGE_RESYNC;
}

tavix_change Show(const WatchedChange& reported) {
  tavix_change change = {};
  change.kind = NumberOf(reported.kind);
  change.gone = reported.isGone ? 1 : 0;
  if (reported.kind == Kind::kResync) return change;
  change.group = reported.group.c_str();
  change.group_size = reported.group.size();
  if (reported.kind == Kind::kGroup) return change;
  change.key = reported.key.c_str();
  change.key_size = reported.key.size();
  if (reported.old) {
    change.old_value = reported.old->c_str();
    change.old_value_size = reported.old->size();
  }
  if (reported.now) {
    change.new_value = reported.now->c_str();
    change.new_value_size = reported.now->size();
  }
  return change;
}

int32_t Next(tavix_watch& watch, int32_t timeoutMs, const tavix_change** change, tavix_error* error) {
  const HandleUse use(watch.owner);
  const auto end = EndOf(timeoutMs);
  watch.reported.reset();
  watch.reported = watch.watch.AwaitChange(end);
  if (!watch.reported) return ReportTimeout(watch.watch, error);
  watch.change = Show(*watch.reported);
  *change = &watch.change;
  return TAVIX_OK;
}

}  // namespace

extern "C" {

int32_t tavix_watch_open(const char* address, size_t address_size, const char* const* names, const size_t* sizes,
                         size_t count, int32_t flags, int32_t timeout_ms, tavix_watch** watch, tavix_error* error) {
  if (watch) *watch = nullptr;
  return RunCall("tavix_watch_open", error,
                 {{"address", address}, {"names", names}, {"sizes", sizes}, {"watch", watch}}, [&] {
                   *watch = Open({address, address_size}, {names, sizes, count}, flags, timeout_ms).release();
                   return TAVIX_OK;
                 });
}

int32_t tavix_watch_open_z(const char* address, const char* const* names, size_t count, int32_t flags,
                           int32_t timeout_ms, tavix_watch** watch, tavix_error* error) {
  if (watch) *watch = nullptr;
  return RunCall("tavix_watch_open_z", error, {{"address", address}, {"names", names}, {"watch", watch}}, [&] {
    *watch = Open({address, SizeOf(address)}, {names, nullptr, count}, flags, timeout_ms).release();
    return TAVIX_OK;
  });
}

void tavix_watch_close(tavix_watch* watch) {
  const std::unique_ptr<tavix_watch> owned(watch);
}

int32_t tavix_watch_fd(tavix_watch* watch, int32_t* fd, tavix_error* error) {
  return RunCall("tavix_watch_fd", error, {{"watch", watch}, {"fd", fd}}, [&] {
    const HandleUse use(watch->owner);
    *fd = watch->watch.GetDescriptor();
    return TAVIX_OK;
  });
}

int32_t tavix_watch_next(tavix_watch* watch, int32_t timeout_ms, const tavix_change** change, tavix_error* error) {
  if (change) *change = nullptr;
  return RunCall("tavix_watch_next", error, {{"watch", watch}, {"change", change}},
                 [&] { return Next(*watch, timeout_ms, change, error); });
}

}  // extern "C"
