#include "tavix/settings/client/ProtocolException.h"

#include <utility>

namespace tavix::settings::client {

ProtocolException::ProtocolException(Reason reason, const std::string& text, std::string hint, bool wasSent)
    : osa::Exception(text), _reason(reason), _hint(std::move(hint)), _wasSent(wasSent) {}

ProtocolException::~ProtocolException() = default;

}  // namespace tavix::settings::client
