#include "HandleWindows.h"
#include "NetWindows.h"
#include "os/StandardStreams.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace vel {
namespace {

constexpr int kStdin = 0;
constexpr int kStdout = 1;
constexpr int kStderr = 2;
// For an output that takes nothing, once everything has been said.
constexpr std::chrono::seconds kPatience{10};

UINT gConsoleCodePage = 0;

// The console is the shell's, too.
void GiveConsoleBack() {
  SetConsoleOutputCP(gConsoleCodePage);
}

UniqueHandle CopyOf(int descriptor) {
  HANDLE copy = nullptr;
  if (DuplicateHandle(GetCurrentProcess(), reinterpret_cast<HANDLE>(_get_osfhandle(descriptor)), GetCurrentProcess(),
                      &copy, 0, FALSE, DUPLICATE_SAME_ACCESS) == FALSE) {
    throw std::system_error(std::error_code(static_cast<int>(GetLastError()), std::system_category()),
                            "cannot use standard input and output");
  }
  return UniqueHandle(copy);
}

}  // namespace

void PrepareStandardStreams() {
  for (const auto& [fd, mode] : {std::pair{kStdin, _O_WRONLY}, {kStdout, _O_RDONLY}, {kStderr, _O_RDWR}}) {
    if (_get_osfhandle(fd) < 0) {
      if (const int none = _open("NUL", mode); none >= 0 && none != fd) {
        _dup2(none, fd);
        _close(none);
      }
    }
    _setmode(fd, _O_BINARY);
  }
  if (gConsoleCodePage = GetConsoleOutputCP(); gConsoleCodePage != 0 && gConsoleCodePage != CP_UTF8) {
    SetConsoleOutputCP(CP_UTF8);
    std::atexit(&GiveConsoleBack);
  }
}

bool IsErrorTerminal() {
  return _isatty(kStderr) != 0;
}

int DescriptorOf(std::FILE* file) {
  return _fileno(file);
}

std::FILE* TurnOutputTo(int descriptor) {
  static_cast<void>(std::fflush(stdout));
  const int kept = _dup(kStdout);
  std::FILE* const results = kept < 0 ? nullptr : _fdopen(kept, "wb");
  if (results == nullptr || _dup2(descriptor, kStdout) < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot use standard output");
  }
  static_cast<void>(std::setvbuf(stdout, nullptr, _IONBF, 0));
  return results;
}

void TurnOutputBack(std::FILE* results) {
  static_cast<void>(std::fflush(stdout));
  _dup2(_fileno(results), kStdout);
}

PrintPipe::PrintPipe() {
  std::array<int, 2> ends{};
  constexpr unsigned kBytes = 64U << 10U;
  if (_pipe(ends.data(), kBytes, _O_BINARY | _O_NOINHERIT) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  mReader = ends[0];
  mWriter = ends[1];
}

PrintPipe::~PrintPipe() {
  CloseWriter();
  _close(mReader);
}

int PrintPipe::Writer() const {
  return mWriter;
}

void PrintPipe::CloseWriter() {
  if (mWriter >= 0) {
    _close(std::exchange(mWriter, -1));
  }
}

std::size_t PrintPipe::Read(std::span<char> text) {
  return static_cast<std::size_t>(std::max(_read(mReader, text.data(), static_cast<unsigned>(text.size())), 0));
}

// The C library may print a line in many pieces.
bool PrintPipe::KeepsPrintsApart() {
  return false;
}

void PrintPipe::End() {
  CloseWriter();  // The last one: children inherit none.
}

struct StandardPipes::State {
  UniqueFd in;
  UniqueFd out;
  std::shared_ptr<Carried> carried;
};

StandardPipes::StandardPipes(int output) : mState(std::make_unique<State>()) {
  std::function<void()> endInput;
  std::tie(mState->in, endInput) = CarryFrom(CopyOf(kStdin));
  // Who takes no output is gone, even when its input still comes: a write to the socket may have been too early to
  // fail.
  std::tie(mState->out, mState->carried) = CarryTo(CopyOf(output), std::move(endInput));
}

StandardPipes::~StandardPipes() = default;

RawFd StandardPipes::In() const {
  return mState->in.Get();
}

RawFd StandardPipes::Out() const {
  return mState->out.Get();
}

bool StandardPipes::Finish(RawFd stop) {
  shutdown(mState->out.Get(), SD_SEND);
  PollFd ended{mState->carried->ended.Get(), kReadable, 0};
  PollFd stopped{stop, kReadable, 0};
  std::uint64_t before = 0;
  do {
    before = mState->carried->bytes;
  } while (!WaitForFirst({ended, stopped, PollFd{kNoFd, 0, 0}}, kPatience) && mState->carried->bytes != before &&
           Poll({&stopped, 1}, 0) == 0);
  return Poll({&ended, 1}, 0) > 0 && !mState->carried->failed;
}

}  // namespace vel
