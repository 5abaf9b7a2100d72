// Standard input, output and error.
#ifndef VIRTUSB_PLATFORM_OS_STANDARD_STREAMS_H
#define VIRTUSB_PLATFORM_OS_STANDARD_STREAMS_H

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <span>

#include "os/Fd.h"

namespace vel {

// At the program's start. Where the standard streams are closed, what is opened next would be taken for them: a
// device's node, a connection. They are held; using them fails as it did. Their bytes are as they are written, and text
// is UTF-8, also on a console.
void PrepareStandardStreams();
bool IsErrorTerminal();

// Of a FILE: its number in this process.
int DescriptorOf(std::FILE* file);
// Turns standard output to a descriptor. Returns it as it was, for results; what is printed goes there at once. Throws
// std::system_error when there is none.
std::FILE* TurnOutputTo(int descriptor);
void TurnOutputBack(std::FILE* results);

// What is printed into it comes out on another thread.
class PrintPipe {
 public:
  // Throws std::system_error.
  PrintPipe();
  PrintPipe(const PrintPipe&) = delete;
  PrintPipe& operator=(const PrintPipe&) = delete;
  ~PrintPipe();

  // Where to print; once, and then closed here: whoever was turned to it keeps it open.
  int Writer() const;
  void CloseWriter();
  // Waits for text. 0 at the end. Where prints are kept apart, one that `text` has no room for is cut.
  std::size_t Read(std::span<char> text);
  // Whether what is read at one time was printed at one time.
  static bool KeepsPrintsApart();
  // Ends Read, once nobody is turned to it any more.
  void End();

 private:
  int mReader = -1;
  int mWriter = -1;
};

// Standard input, and an output by its descriptor, as something to wait for.
class StandardPipes {
 public:
  // Throws std::system_error.
  explicit StandardPipes(int output);
  StandardPipes(const StandardPipes&) = delete;
  StandardPipes& operator=(const StandardPipes&) = delete;
  ~StandardPipes();

  RawFd In() const;
  RawFd Out() const;
  // Once nothing is written any more: waits until the output has taken everything, for as long as it takes something
  // and `stop` is not readable. False when it never will.
  bool Finish(RawFd stop);

 private:
  struct State;

  std::unique_ptr<State> mState;
};

}  // namespace vel

#endif
