#include "support/CommandProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <stdexcept>
#include <utility>

#include "remote/ChildProcess.h"
#include "remote/FdStream.h"
#include "remote/StreamChannel.h"

namespace vel {
namespace {

UniqueFd Copy(const UniqueFd& fd) {
  return UniqueFd(fcntl(fd.Get(), F_DUPFD_CLOEXEC, 0));
}

// Appends what comes next; false at the end of it and after the deadline.
bool ReadMore(const UniqueFd& fd, std::chrono::steady_clock::time_point deadline, std::string& text) {
  pollfd ready{fd.Get(), POLLIN, 0};
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (poll(&ready, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) != 1) {
    return false;
  }
  std::array<char, 4096> buffer{};
  const ssize_t count = read(fd.Get(), buffer.data(), buffer.size());
  text.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return count > 0;
}

int Count(const std::string& text, const std::string& wanted) {
  int count = 0;
  for (std::size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace

CommandProcess::CommandProcess(std::vector<std::string> words, std::chrono::seconds deadline) : mDeadline(deadline) {
  auto [childInput, input] = MakePipe();
  auto [output, childOutput] = MakePipe();
  auto [messages, childMessages] = MakePipe();
  std::vector<char*> arguments = ArgumentVector(words);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, childInput.Get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, childOutput.Get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, childMessages.Get(), STDERR_FILENO);
  const int error = posix_spawnp(&mPid, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::runtime_error("cannot run " + words[0]);
  }
  mInput = std::move(input);
  mOutput = std::move(output);
  mErrors = std::move(messages);
}

CommandProcess::~CommandProcess() {
  mRemote.reset();
  if (mPid > 0) {
    kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
  }
}

RemoteDevice& CommandProcess::Remote() {
  if (mRemote == nullptr) {
    mRemote = std::make_unique<RemoteDevice>(
        std::make_unique<StreamChannel>(std::make_unique<FdStream>(Copy(mOutput), Copy(mInput))), 1, mDeadline);
  }
  return *mRemote;
}

const std::string& CommandProcess::AwaitMessage(const std::string& text, int times) {
  const auto deadline = std::chrono::steady_clock::now() + mDeadline;
  while (Count(mMessages, text) < times) {
    if (!ReadMore(mErrors, deadline, mMessages)) {
      throw std::runtime_error("no \"" + text + "\" in: " + mMessages);
    }
  }
  return mMessages;
}

CommandProcess::Ending CommandProcess::Leave(std::span<const std::uint8_t> lastBytes) {
  if (!lastBytes.empty() && write(mInput.Get(), lastBytes.data(), lastBytes.size()) < 0) {
    throw std::runtime_error("the command takes no more bytes");
  }
  mRemote.reset();
  mInput = UniqueFd();
  return Await();
}

CommandProcess::Ending CommandProcess::Kill(int signal) {
  kill(mPid, signal);
  return Await();
}

CommandProcess::Ending CommandProcess::Await() {
  const auto deadline = std::chrono::steady_clock::now() + mDeadline;
  Ending ending;
  while (mRemote == nullptr && ReadMore(mOutput, deadline, ending.output)) {
  }
  while (ReadMore(mErrors, deadline, mMessages)) {
  }
  ending.messages = mMessages;
  if (std::chrono::steady_clock::now() >= deadline) {
    throw std::runtime_error("the command does not end; it said: " + mMessages);
  }
  int status = 0;
  waitpid(std::exchange(mPid, -1), &status, 0);
  ending.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return ending;
}

}  // namespace vel
