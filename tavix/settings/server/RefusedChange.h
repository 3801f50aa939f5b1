#pragma once

#include <string>

#include "tavix/osa/Exception.h"
#include "tavix/osa/Export.h"

namespace tavix::settings::server {

// A request was understood, and the store did not carry it out: nothing of it was changed, and nobody is notified.
// Thrown only by a store that has a bound, or whose persister refuses changes. A plain value.
class TAVIX_EXPORT RefusedChange : public osa::Exception {
 public:
  enum class Reason {
    kStoreFull,        // it would make the store larger than its bound
    kDeletedPatterns,  // the record of deleted groups would hold more patterns than its bound
    kTrial,            // it was to be put on trial, and can't be
    kTrialBytes        // what is on trial would take more memory than its bound
  };

  RefusedChange(Reason reason, const std::string& message) : osa::Exception(message), _reason(reason) {}

  Reason GetReason() const { return _reason; }

 private:
  Reason _reason;
};

}  // namespace tavix::settings::server
