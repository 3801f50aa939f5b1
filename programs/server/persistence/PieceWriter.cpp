#include "programs/server/persistence/PieceWriter.h"

namespace tavix::daemon {

void PieceWriter::Write(std::string_view text) {
  while (_kept.size() + text.size() >= _bytesOfAPiece) {
    const std::string_view part = text.substr(0, _bytesOfAPiece - _kept.size());
    _kept += part;
    text.remove_prefix(part.size());
    const uint64_t offset = _offset;
    Flush();
    _file.WriteOut(offset, _offset - offset, _pace == Pace::kGentle);
  }
  _kept += text;
}

void PieceWriter::Flush() {
  if (_kept.empty()) return;
  _file.WriteAt(_offset, _kept);
  _offset += _kept.size();
  _kept.clear();
}

}  // namespace tavix::daemon
