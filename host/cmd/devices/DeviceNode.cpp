#include "cmd/devices/DeviceNode.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "cmd/console/Format.h"
#include "cmd/devices/DevicePlace.h"
#include "cmd/devices/UdevRule.h"

namespace vel {
namespace {

// "process N" of the one that has locked this file, as /proc/locks tells it.
std::string LockOwner(int fd) {
  struct stat file {};
  fstat(fd, &file);
  const std::string place =
      Format("%02x:%02x:%llu", major(file.st_dev), minor(file.st_dev), static_cast<unsigned long long>(file.st_ino));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream text(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
    if (words.size() > 5 && words[1] == "FLOCK" && words[5] == place && words[4] != "0") {
      return "process " + words[4];
    }
  }
  return "another process";
}

}  // namespace

DeviceNode::DeviceNode(const DeviceIdentity& identity)
    : mPath(Format("/dev/bus/usb/%03u/%03u", unsigned{identity.bus}, unsigned{identity.address})),
      mFd(open(mPath.c_str(), O_RDWR | O_CLOEXEC)) {
  if (!mFd.IsValid()) {
    const int error = errno;
    throw std::runtime_error(Describe(identity) + " cannot be opened: " + std::strerror(error) +
                             (error == EACCES
                                  ? " (install " + UdevRulePath() + " into /etc/udev/rules.d and plug it in again)"
                                  : " (is " + mPath + " there?)"));
  }
  if (flock(mFd.Get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error(Describe(identity) + " is already redirected by " + LockOwner(mFd.Get()));
  }
}

std::string DeviceNode::Driver(unsigned interface) const {
  usbdevfs_getdriver query{};
  query.interface = interface;
  return ioctl(mFd.Get(), USBDEVFS_GETDRIVER, &query) == 0 ? query.driver : "";
}

int DeviceNode::Attach(unsigned interface) const {
  usbdevfs_ioctl call{static_cast<int>(interface), USBDEVFS_CONNECT, nullptr};
  if (ioctl(mFd.Get(), USBDEVFS_IOCTL, &call) >= 0 || errno == EBUSY || errno == EINVAL) {
    return 0;  // Busy: it has one by now.
  }
  return errno;
}

void DeviceNode::Detach(unsigned interface) const {
  usbdevfs_ioctl call{static_cast<int>(interface), USBDEVFS_DISCONNECT, nullptr};
  ioctl(mFd.Get(), USBDEVFS_IOCTL, &call);
}

int DeviceNode::SetConfiguration(int value) const {
  return ioctl(mFd.Get(), USBDEVFS_SETCONFIGURATION, &value) < 0 ? errno : 0;
}

std::optional<std::string> DeviceNode::OtherUser() const {
  namespace fs = std::filesystem;
  std::error_code error;
  for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
    const std::string pid = process.path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos || pid == std::to_string(getpid())) {
      continue;
    }
    for (fs::directory_iterator file(process.path() / "fd", error), end; !error && file != end; file.increment(error)) {
      if (fs::read_symlink(file->path(), error) == mPath) {
        std::string name;
        std::getline(std::ifstream(process.path() / "comm"), name);
        return "process " + pid + " (" + name + ")";
      }
    }
  }
  return std::nullopt;
}

}  // namespace vel
