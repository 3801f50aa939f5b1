#pragma once

namespace tavix::osa {

// Where one thread sleeps until a stream has input, so that another thread can read from the stream for a while without
// waking it.
//
// Threads: one thread awaits; any thread may call the rest meanwhile.
class InputWatch {
 public:
  InputWatch(const InputWatch&) = delete;
  InputWatch& operator=(const InputWatch&) = delete;

  // Sleeps until the stream has input that nobody has read, or its end, and returns true; until Wake, and returns
  // false. What a stream buffer has read ahead does not count.
  virtual bool Await() noexcept = 0;

  // Input does not end the sleep from now on. The end of the stream does.
  virtual void Pause() noexcept = 0;

  // Input ends the sleep again, also if it came before.
  virtual void Resume() noexcept = 0;

  // Ends the sleep, or the next one if nobody sleeps.
  virtual void Wake() noexcept = 0;

 protected:
  InputWatch() = default;
  ~InputWatch() = default;  // by who made it, who knows its class
};

}  // namespace tavix::osa
