#include "programs/cli/commands/Note.h"

namespace tavix::programs::cli {

void AddNote(const CommandOptions& command, Note& note) {
  command.AddText("-m,--note", note.text, "The reason, which goes with the change").SetWhenGiven(note.isGiven);
}

void SetNote(Context& context, const Note& note) {
  if (note.isGiven) context.GetSession().SetNote(note.text);
}

}  // namespace tavix::programs::cli
