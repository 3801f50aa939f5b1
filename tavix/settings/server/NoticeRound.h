#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tavix/settings/server/NoticeText.h"

namespace tavix::settings::server {

// The notices that connections are to be sent because of one change. The store calls its subscribers with the
// notification gate and the dispatcher's mutex held; connections then only add themselves to the round, and their
// notices are made and written once the locks are released. So nobody waits for the locks for as long as that takes.
//
// Threads: a round belongs to the thread that makes it; rounds of one thread are nested.
class NoticeRound {
 public:
  class IReceiver {
   public:
    virtual ~IReceiver() = default;

    // Writes a notice with the present values of these groups.
    virtual void WriteNotice(const std::set<std::string>& changedGroups) noexcept = 0;
  };

  NoticeRound();

  // Writes the notices.
  ~NoticeRound();

  NoticeRound(const NoticeRound&) = delete;
  NoticeRound& operator=(const NoticeRound&) = delete;

  // Adds a notice to the innermost round of the calling thread. False when there is none. Throws std::bad_alloc.
  [[nodiscard]] static bool Add(const std::shared_ptr<IReceiver>& receiver, const std::set<std::string>& changedGroups);

  // Writes the notices that were added so far. Without locks that a notification holds.
  void WriteNotices() noexcept;

 private:
  using Groups = std::shared_ptr<const std::set<std::string>>;

  struct Notice {
    std::shared_ptr<IReceiver> receiver;
    Groups groups;
  };

  Groups Share(const std::set<std::string>& changedGroups) const;

  NoticeRound* const _outer;
  const NoticeText::Round _texts;
  std::vector<Notice> _notices;
};

}  // namespace tavix::settings::server
