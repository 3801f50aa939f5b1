#pragma once

#include <array>
#include <set>
#include <string>

#include "tavix/settings/client/RemoteCommand.h"

namespace tavix::core {
class IniFile;
}
namespace tavix::settings {
struct Amendment;
}

// The commands, one for each operation of a remote client; the caller fills their members. docs/protocol.md shows
// their requests and replies.
//
// Threads: as RemoteCommand.
namespace tavix::settings::client {

// Reply: the groups are merged into *_result. A reply that can't be parsed throws, is read to its end all the same, and
// leaves *_result as it was.
class GetSettingsCommand : public RemoteCommand {
 public:
  void SendRequest(std::ostream& os) override;
  bool HandleResponse(std::istream& is) override;

  const std::set<std::string>* _groups = nullptr;
  core::IniFile* _result = nullptr;
};

class MergeCommand : public RemoteCommand {
 public:
  static constexpr unsigned int kNoPersistFlag = 1;

  void SendRequest(std::ostream& os) override;

  const core::IniFile* _settings = nullptr;
  unsigned int _flags = 0;  // bit 0: nopersist; the others have no meaning
};

// Reply: whether the condition held and the change was made, also left in _success.
class TestAndMergeCommand : public RemoteCommand {
 public:
  void SendRequest(std::ostream& os) override;
  bool HandleResponse(std::istream& is) override;

  const core::IniFile* _test = nullptr;
  const core::IniFile* _settings = nullptr;
  bool _success = false;
};

// The payloads of an amendment, in the order in which they are sent.
std::array<const core::IniFile*, 5> PartsOf(const Amendment& amendment);

// Reply: whether the change was made, also left in _success. Only for servers that know it, see FeaturesCommand.
class AmendCommand : public RemoteCommand {
 public:
  void SendRequest(std::ostream& os) override;
  bool HandleResponse(std::istream& is) override;

  const Amendment* _amendment = nullptr;
  bool _success = false;
};

// Asks for the server's features, and for nothing behind it: an older server answers the second alone. So the reply has
// two parts, or one. The outcome, also left in _success: whether the server knows amendments.
class FeaturesCommand : public RemoteCommand {
 public:
  // Whether a line of the list is about that feature: its first word is the name.
  static bool IsAbout(const std::string& line, const std::string& name);

  void SendRequest(std::ostream& os) override;
  bool Accepts(const std::string& word) override;
  bool HandleResponse(std::istream& is) override;
  bool AwaitsMore() const override { return _isList; }

  bool _success = false;

 private:
  void ReadList(std::istream& is);

  bool _isList = false;  // the part at hand
  bool _hasList = false;
};

class OverwriteCommand : public RemoteCommand {
 public:
  void SendRequest(std::ostream& os) override;

  const std::set<std::string>* _groups = nullptr;
  const core::IniFile* _settings = nullptr;
};

class RestoreToDefaultsCommand : public RemoteCommand {
 public:
  void SendRequest(std::ostream& os) override;

  const std::set<std::string>* _groups = nullptr;
};

// Writes a subscription, which has no reply and no command: only the multi-threaded client subscribes.
void WriteSubscribeRequest(std::ostream& os, const std::set<std::string>& groups);

}  // namespace tavix::settings::client
