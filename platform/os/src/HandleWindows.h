// Windows' handles with one owner, and what carries bytes between one and a socket, for the Windows sources.
#ifndef VIRTUSB_PLATFORM_OS_HANDLE_WINDOWS_H
#define VIRTUSB_PLATFORM_OS_HANDLE_WINDOWS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "os/Fd.h"

namespace vel {

class UniqueHandle {
 public:
  UniqueHandle() = default;
  explicit UniqueHandle(void* handle) : mHandle(handle) {}
  UniqueHandle(UniqueHandle&& other) noexcept : mHandle(std::exchange(other.mHandle, nullptr)) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    std::swap(mHandle, other.mHandle);
    return *this;
  }
  ~UniqueHandle();

  void* Get() const { return mHandle; }

 private:
  void* mHandle = nullptr;
};

// How far a carrier is.
struct Carried {
  Carried();

  std::atomic<std::uint64_t> bytes{0};
  std::atomic<bool> failed{false};
  UniqueFd ended;  // Readable once it is over.
  UniqueFd ending;
};

// What can be read from a handle, as a socket: a thread of its own carries it there, as much as the socket holds and a
// buffer. Its end is the socket's end, its failure a reset. The thread ends with either side; one that waits for a
// handle that says nothing stays until the process ends. The function ends the socket's bytes as the handle's end does.
// Any thread.
std::pair<UniqueFd, std::function<void()>> CarryFrom(UniqueHandle source);
// The same towards a handle. `onFailed` is called, on the carrier's thread, when that takes no more.
std::pair<UniqueFd, std::shared_ptr<Carried>> CarryTo(
    UniqueHandle sink, std::function<void()> onFailed = [] {});

}  // namespace vel

#endif
