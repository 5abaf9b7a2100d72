#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "os/Process.h"

namespace vel {
namespace {

// What the child starts with.
class SpawnSetup {
 public:
  SpawnSetup(const UniqueFd& input, const UniqueFd& output) {
    posix_spawn_file_actions_init(&mActions);
    posix_spawn_file_actions_adddup2(&mActions, input.Get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&mActions, output.Get(), STDOUT_FILENO);
    posix_spawnattr_init(&mAttributes);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGXFSZ);
    posix_spawnattr_setsigdefault(&mAttributes, &signals);
    pthread_sigmask(SIG_BLOCK, nullptr, &signals);
    sigaddset(&signals, SIGINT);
    posix_spawnattr_setsigmask(&mAttributes, &signals);
    posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
  ~SpawnSetup() {
    posix_spawnattr_destroy(&mAttributes);
    posix_spawn_file_actions_destroy(&mActions);
  }

  // 0, or what went wrong as errno has it.
  int Run(std::vector<std::string>& words, pid_t& pid) const {
    std::vector<char*> arguments = ArgumentVector(words);
    return posix_spawnp(&pid, arguments[0], &mActions, &mAttributes, arguments.data(), environ);
  }

 private:
  posix_spawn_file_actions_t mActions{};
  posix_spawnattr_t mAttributes{};
};

}  // namespace

struct Process::Handles {
  pid_t pid = -1;
};

Process::Process(std::vector<std::string> words) : mHandles(std::make_unique<Handles>()) {
  auto [childInput, input] = MakePipe();
  auto [output, childOutput] = MakePipe();
  const int error = SpawnSetup(childInput, childOutput).Run(words, mHandles->pid);
  if (error != 0) {
    throw std::runtime_error("cannot run \"" + words[0] + "\": " + std::strerror(error) +
                             " (check the command's name and PATH)");
  }
  mEnd = UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, mHandles->pid, 0)));
  mInput = std::move(input);
  mOutput = std::move(output);
}

Process::~Process() {
  while (waitpid(mHandles->pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void Process::AskToEnd() {
  kill(mHandles->pid, SIGTERM);
}

void Process::Kill() {
  kill(mHandles->pid, SIGKILL);
}

std::optional<std::string> Process::AwaitEnd(std::chrono::milliseconds time) const {
  pollfd end{mEnd.Get(), POLLIN, 0};
  while (poll(&end, 1, static_cast<int>(time.count())) < 0 && errno == EINTR) {
  }
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(mHandles->pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) {
    return std::nullopt;
  }
  return (info.si_code == CLD_EXITED ? "exit status " : "killed by signal ") + std::to_string(info.si_status);
}

}  // namespace vel
