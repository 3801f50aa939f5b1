#pragma once

#include <memory>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::c {

// A client of a store whose connection is made again, and that knows whether a write was lost with one.
//
// Before each request it looks whether the server has ended the connection, and then makes a new one. No request is
// sent twice. Writes without a reply count as pending until a flush shows what became of them: when their connection
// is gone before, the next flush reports the loss, once.
//
// Threads: one.
// Errors:  ProtocolException; CallFailure: TAVIX_REFUSED for restricted groups, with nothing sent, and what Flush
//          names.
// Owns:    the connection.
class StoreClient {
 public:
  using Names = std::set<std::string>;
  using ProtocolClient = settings::client::ProtocolClient;

  // Connects.
  explicit StoreClient(const settings::client::ProtocolOptions& options);

  core::IniFile Get(const Names& names);

  void Merge(const core::IniFile& change, bool isVolatile);
  void Overwrite(const Names& names, const core::IniFile& change);
  void Restore(const Names& names);

  // Return whether the change was made: false, when a condition did not hold. Throw TAVIX_REFUSED when the server does
  // not take the change.
  [[nodiscard]] bool TestAndMerge(const core::IniFile& test, const core::IniFile& change);
  [[nodiscard]] bool Amend(const settings::Amendment& amendment);

  // Waits for the writes over the connection that there is. Then throws TAVIX_LOST when that of an earlier pending
  // write is gone, and TAVIX_REFUSED when the last write was not carried out as a whole.
  void Flush();

 private:
  ProtocolClient& Prepare();
  template <class Request>
  void Write(const Request& request);
  void DropEnded();
  bool Conclude(bool isDone);
  std::string AwaitWrites();

  const settings::client::ProtocolOptions _options;
  std::unique_ptr<ProtocolClient> _connection;
  bool _isWritePending = false;  // on the connection
  bool _isWriteLost = false;     // with an earlier one
};

}  // namespace tavix::c
