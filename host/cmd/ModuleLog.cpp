#include "cmd/ModuleLog.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <system_error>

#include "cmd/Output.h"
#include "cmd/UsbfsLimit.h"
#include "oskelo/log.h"

namespace vel {
namespace {

constexpr std::size_t kKept = 32;
constexpr char kPrintedTag[] = "printed";

std::string TimeStamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  std::array<char, sizeof "2000-01-01 00:00:00"> text{};
  static_cast<void>(std::strftime(text.data(), text.size(), "%F %T", &local));
  return Format("%s.%03d", text.data(), static_cast<int>(milliseconds));
}

}  // namespace

ModuleLog::ModuleLog(bool shown) : mShown(shown) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  mPrinted = UniqueFd(ends[0]);
  const UniqueFd writer(ends[1]);
  DivertStandardOutput(writer.Get());
  mReader = std::thread([this] { ReadPrinted(); });
  oskeloLogSetSink(&ModuleLog::OnLine, this);
}

ModuleLog::~ModuleLog() {
  oskeloLogSetSink(nullptr, nullptr);
  RestoreStandardOutput();
  shutdown(mPrinted.Get(), SHUT_RD);  // A child process may have inherited the other end.
  mReader.join();
}

void ModuleLog::ReadPrinted() {
  std::array<char, 4096> text{};
  ssize_t count = 0;
  while ((count = recv(mPrinted.Get(), text.data(), text.size(), 0)) > 0 || (count < 0 && errno == EINTR)) {
    std::string_view rest(text.data(), count < 0 ? 0 : static_cast<std::size_t>(count));
    while (!rest.empty()) {
      const std::size_t end = rest.find('\n');
      Take(kPrintedTag, rest.substr(0, end));
      rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
  }
}

void ModuleLog::OnLine(void* self, int level, const char* tag, const char* text) {
  static_cast<ModuleLog*>(self)->Take(tag == nullptr ? "" : tag, text);
  if (level >= OSKELO_LOG_ERROR) {
    NoteUsbfsLimitOnce(text);
  }
}

void ModuleLog::Take(std::string_view tag, std::string_view text) {
  std::string line = TimeStamp() + " " + std::string(tag) + " " + std::string(text);
  if (mShown) {
    Note(line);
    return;
  }
  const MutexLock lock(mMutex);
  if (mKept.size() == kKept) {
    mKept.pop_front();
    ++mForgotten;
  }
  mKept.push_back(std::move(line));
}

void ModuleLog::ShowKept() {
  const MutexLock lock(mMutex);
  if (mForgotten > 0) {
    Note(Format("(%llu earlier lines of the module: --log warn shows all)",
                static_cast<unsigned long long>(mForgotten)));
  }
  for (const std::string& line : mKept) {
    Note(line);
  }
  mKept.clear();
  mForgotten = 0;
}

}  // namespace vel
