#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "os/StandardStreams.h"

namespace vel {

void PrepareStandardStreams() {
  for (const auto& [fd, mode] :
       {std::pair{STDIN_FILENO, O_WRONLY}, {STDOUT_FILENO, O_RDONLY}, {STDERR_FILENO, O_RDWR}}) {
    if (fcntl(fd, F_GETFD) < 0) {
      static_cast<void>(open("/dev/null", mode));
    }
  }
}

bool IsErrorTerminal() {
  return isatty(STDERR_FILENO) != 0;
}

int DescriptorOf(std::FILE* file) {
  return fileno(file);
}

std::FILE* TurnOutputTo(int descriptor) {
  static_cast<void>(std::fflush(stdout));
  const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  std::FILE* const results = kept < 0 ? nullptr : fdopen(kept, "w");
  if (results == nullptr || dup2(descriptor, STDOUT_FILENO) < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot use standard output");
  }
  static_cast<void>(std::setvbuf(stdout, nullptr, _IONBF, 0));
  return results;
}

void TurnOutputBack(std::FILE* results) {
  static_cast<void>(std::fflush(stdout));
  dup2(fileno(results), STDOUT_FILENO);
}

PrintPipe::PrintPipe() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  mReader = ends[0];
  mWriter = ends[1];
}

PrintPipe::~PrintPipe() {
  CloseWriter();
  close(mReader);
}

int PrintPipe::Writer() const {
  return mWriter;
}

void PrintPipe::CloseWriter() {
  if (mWriter >= 0) {
    close(std::exchange(mWriter, -1));
  }
}

std::size_t PrintPipe::Read(std::span<char> text) {
  ssize_t count = 0;
  while ((count = recv(mReader, text.data(), text.size(), 0)) < 0 && errno == EINTR) {
  }
  return count < 0 ? 0 : static_cast<std::size_t>(count);
}

bool PrintPipe::KeepsPrintsApart() {
  return true;
}

void PrintPipe::End() {
  shutdown(mReader, SHUT_RD);  // A child process may have inherited the other end.
}

struct StandardPipes::State {
  int output;
};

StandardPipes::StandardPipes(int output) : mState(new State{output}) {}

StandardPipes::~StandardPipes() = default;

RawFd StandardPipes::In() const {
  return STDIN_FILENO;
}

RawFd StandardPipes::Out() const {
  return mState->output;
}

bool StandardPipes::Finish(RawFd /*stop*/) {
  return true;  // What was written is the reader's.
}

}  // namespace vel
