#pragma once

#include <istream>
#include <memory>
#include <ostream>

namespace tavix::osa {

class InputWatch;

// A pipe inside one process: what is written to GetOstream() and flushed is read from GetIstream(). It costs no
// descriptor and raises no signal. Writes never block (the pipe keeps what nobody has read yet); reads do.
//
// Threads: one thread reads while another writes; ClosePipe may be called from any thread.
class PipeStreamPair {
 public:
  PipeStreamPair();

  // Nobody may use the streams any more.
  ~PipeStreamPair();

  PipeStreamPair(const PipeStreamPair&) = delete;
  PipeStreamPair& operator=(const PipeStreamPair&) = delete;

  // The two ends; both live as long as the pair.
  std::istream* GetIstream();
  std::ostream* GetOstream();

  // Watches the reading end; lives as long as the pair.
  InputWatch& GetWatch();

  // The writing end fails from now on. What was flushed before can still be read; then the reader sees the end.
  // A second call does nothing.
  void ClosePipe();

  bool IsClosed() const;

 private:
  struct State;
  std::unique_ptr<State> _state;
};

}  // namespace tavix::osa
