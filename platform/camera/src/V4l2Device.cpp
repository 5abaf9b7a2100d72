#include "V4l2Device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace oskelo {
namespace {

class Fd {
 public:
  explicit Fd(int fd) : mFd(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (mFd >= 0) {
      close(mFd);
    }
  }
  int Get() const { return mFd; }

 private:
  const int mFd;
};

class KernelDevice final : public V4l2Device {
 public:
  explicit KernelDevice(const std::string& path)
      : mDevice(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)), mOpenError(errno) {}

  int Error() const {
    if (mDevice.Get() < 0) {
      return mOpenError;
    }
    return mWake.Get() < 0 ? EMFILE : 0;
  }

  int Ioctl(unsigned long request, void* argument) override {
    int result = 0;
    do {
      result = ioctl(mDevice.Get(), request, argument);
    } while (result < 0 && errno == EINTR);
    return result < 0 ? -errno : 0;
  }

  void* Map(std::size_t length, std::uint32_t offset) override {
    void* memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, mDevice.Get(), static_cast<off_t>(offset));
    return memory == MAP_FAILED ? nullptr : memory;
  }

  void Unmap(void* memory, std::size_t length) override { munmap(memory, length); }

  Event Wait() override {
    std::array<pollfd, 2> fds = {pollfd{mDevice.Get(), POLLIN, 0}, pollfd{mWake.Get(), POLLIN, 0}};
    while (poll(fds.data(), fds.size(), -1) < 0 && errno == EINTR) {
    }
    return fds[1].revents != 0 ? Event::kWoken : Event::kPicture;
  }

  void Wake() override { eventfd_write(mWake.Get(), 1); }

  void ClearWake() override {
    eventfd_t count = 0;
    eventfd_read(mWake.Get(), &count);
  }

 private:
  const Fd mDevice;
  const int mOpenError;
  const Fd mWake{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
};

}  // namespace

std::unique_ptr<V4l2Device> V4l2Device::Open(const std::string& path, int& error) {
  auto device = std::make_unique<KernelDevice>(path);
  error = device->Error();
  return error == 0 ? std::move(device) : nullptr;
}

}  // namespace oskelo
