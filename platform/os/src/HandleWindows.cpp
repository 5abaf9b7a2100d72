#include "HandleWindows.h"

#include "NetWindows.h"
#include "os/DetachedThread.h"

#include <algorithm>
#include <array>

namespace vel {
namespace {

constexpr DWORD kBufferBytes = 64U << 10U;

// Makes its closing a failure that the other side of the socket sees as one.
void Reset(const UniqueFd& fd) {
  const linger abort{1, 0};
  setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort), sizeof abort);
}

void ReadFrom(const UniqueHandle& source, const UniqueFd& to) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(kBufferBytes);
  while (true) {
    DWORD count = 0;
    if (ReadFile(source.Get(), buffer.get(), kBufferBytes, &count, nullptr) == FALSE) {
      const DWORD error = GetLastError();
      if (error != ERROR_BROKEN_PIPE && error != ERROR_HANDLE_EOF && error != ERROR_MORE_DATA) {
        return Reset(to);
      }
      if (error != ERROR_MORE_DATA) {
        count = 0;
      }
    } else if (count == 0 && GetFileType(source.Get()) == FILE_TYPE_PIPE &&
               PeekNamedPipe(source.Get(), nullptr, 0, nullptr, nullptr, nullptr) != FALSE) {
      continue;  // A write of nothing, which is no end.
    }
    if (count == 0) {
      shutdown(to.Get(), SD_SEND);
      return;
    }
    for (DWORD sent = 0; sent < count;) {
      const int n = send(to.Get(), buffer.get() + sent, static_cast<int>(count - sent), 0);
      if (n < 0) {
        return;  // Nobody reads it any more.
      }
      sent += static_cast<DWORD>(n);
    }
  }
}

// False when not everything could be written.
bool WriteTo(const UniqueHandle& sink, UniqueFd from, std::atomic<std::uint64_t>& bytes) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(kBufferBytes);
  while (true) {
    const int count = recv(from.Get(), buffer.get(), static_cast<int>(kBufferBytes), 0);
    if (count <= 0) {
      return true;  // A reset is of this process's own making: what had come is written.
    }
    for (DWORD gone = 0; gone < static_cast<DWORD>(count);) {
      DWORD written = 0;
      if (WriteFile(sink.Get(), buffer.get() + gone, static_cast<DWORD>(count) - gone, &written, nullptr) == FALSE) {
        Reset(from);
        return false;
      }
      gone += written;
      bytes += written;
    }
  }
}

}  // namespace

UniqueHandle::~UniqueHandle() {
  if (mHandle != nullptr && mHandle != INVALID_HANDLE_VALUE) {
    CloseHandle(mHandle);
  }
}

Carried::Carried() {
  std::tie(ended, ending) = MakePipe(Waiting::kReturns);
}

std::pair<UniqueFd, std::function<void()>> CarryFrom(UniqueHandle source) {
  auto [reader, writer] = MakePipe();
  auto to = std::make_shared<UniqueFd>(std::move(writer));
  auto end = [weak = std::weak_ptr(to)] {
    if (const auto open = weak.lock(); open != nullptr) {
      shutdown(open->Get(), SD_SEND);
    }
  };
  StartDetached([source = std::move(source), to = std::move(to)] { ReadFrom(source, *to); });
  return {std::move(reader), std::move(end)};
}

std::pair<UniqueFd, std::shared_ptr<Carried>> CarryTo(UniqueHandle sink, std::function<void()> onFailed) {
  auto [reader, writer] = MakePipe();
  auto carried = std::make_shared<Carried>();
  StartDetached([sink = std::move(sink), from = std::move(reader), carried, onFailed = std::move(onFailed)]() mutable {
    carried->failed = !WriteTo(sink, std::move(from), carried->bytes);
    if (carried->failed) {
      onFailed();
    }
    sink = UniqueHandle();
    PutByte(carried->ending.Get());
  });
  return {std::move(writer), std::move(carried)};
}

}  // namespace vel
