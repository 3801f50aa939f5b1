#pragma once

#include <functional>
#include <utility>

namespace tavix::daemon {

// While it lives, the changes that its thread makes are one batch for the disk: the journal gets them by one write, and
// the thread "JournalSync" is woken once, at the end of the batch. One that is made while another lives takes its place
// until its own end.
//
// A thread that has nothing else to do while it waits for the disk may have the changes synced by itself: then no other
// thread is woken.
//
// Threads: the one that makes it, which destroys it, too, and holds no lock then.
class ChangeBatch {
 public:
  // Says whether the thread of the batch may wait for the disk, which as a rule takes short; empty: it may not. It is
  // asked once at most, right before the wait would begin, maybe with locks of the member held. It throws nothing.
  using MayWait = std::function<bool()>;

  // What has changes in a batch. It outlives the batch.
  class IMember {
   public:
    virtual ~IMember() = default;

    // The batch has ended, or goes on without these changes. On the thread of the batch.
    virtual void OnBatchEnd(const MayWait& mayWait) noexcept = 0;
  };

  ChangeBatch() : _outer(std::exchange(s_current, this)) {}

  ~ChangeBatch() {
    s_current = _outer;
    Flush();
  }

  ChangeBatch(const ChangeBatch&) = delete;
  ChangeBatch& operator=(const ChangeBatch&) = delete;

  // Has the member be called once, at the end of the calling thread's batch. False when there is no batch, or when it
  // has another member already: then nothing is to wait for the end.
  [[nodiscard]] static bool Join(IMember& member) {
    if (!s_current || (s_current->_member && s_current->_member != &member)) return false;
    s_current->_member = &member;
    return true;
  }

  bool HasMember() const { return _member; }

  // Ends the batch as far as it has come; the next change begins it anew.
  void Flush(const MayWait& mayWait = {}) {
    if (IMember* const member = std::exchange(_member, nullptr)) member->OnBatchEnd(mayWait);
  }

 private:
  static inline thread_local ChangeBatch* s_current = nullptr;

  ChangeBatch* const _outer;
  IMember* _member = nullptr;
};

}  // namespace tavix::daemon
