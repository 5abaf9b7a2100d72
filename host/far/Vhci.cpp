#include "far/Vhci.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "remote/TransferAnswer.h"

namespace vel {

// The kernel's side of them.
static_assert(kGuestNoEntry == ENOENT && kGuestNoMemory == ENOMEM && kGuestNoDevice == ENODEV &&
              kGuestInvalid == EINVAL && kGuestPipe == EPIPE && kGuestProtocol == EPROTO &&
              kGuestOverflow == EOVERFLOW && kGuestReset == ECONNRESET && kGuestTimedOut == ETIMEDOUT &&
              kGuestRemoteIo == EREMOTEIO);

namespace {

// Of the status file (drivers/usb/usbip/usbip_common.h).
constexpr unsigned kPortFree = 4;
constexpr unsigned kPortUsed = 6;
constexpr std::uint32_t kSuper = 5;
constexpr std::uint32_t kDeviceId = 0x00010001;  // Bus and device number where it comes from; nobody looks at them.

constexpr std::chrono::milliseconds kQuiet{1000};
constexpr std::chrono::seconds kUnplugTime{5};
constexpr std::chrono::milliseconds kUnplugStep{20};

UniqueFd OpenUevents() {
  UniqueFd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = 1;  // The kernel's own.
  if (!fd.IsValid() || bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error(std::string("cannot watch this machine's devices: ") + std::strerror(errno));
  }
  return fd;
}

// Waits for the kernel to say that something has changed. False at the deadline and once stopped.
bool AwaitUevent(const UniqueFd& uevents, std::chrono::steady_clock::time_point deadline, const StopSignal& stop) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) {
    return false;
  }
  std::array<pollfd, 2> descriptors = {pollfd{uevents.Get(), POLLIN, 0}, pollfd{stop.Fd(), POLLIN, 0}};
  const int ready = poll(descriptors.data(), descriptors.size(), static_cast<int>(left.count()));
  const bool woken = ready > 0 || (ready < 0 && errno == EINTR);
  std::array<char, 4096> event{};
  while (recv(uevents.Get(), event.data(), event.size(), 0) > 0) {
  }
  return woken && descriptors[1].revents == 0;
}

std::string FirstLine(const std::filesystem::path& file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return line;
}

}  // namespace

Vhci::Vhci(std::filesystem::path controller) : mController(std::move(controller)) {
  const std::filesystem::path attach = mController / "attach";
  if (!std::filesystem::exists(attach)) {
    throw std::runtime_error("this machine has no virtual USB host controller: run \"modprobe vhci-hcd\" as root");
  }
  if (access(attach.c_str(), W_OK) != 0) {
    throw std::runtime_error("only root may plug devices in here: run it with sudo");
  }
}

std::vector<Vhci::Port> Vhci::Ports(bool superSpeed, bool free) const {
  std::vector<Port> ports;
  for (int i = 0;; ++i) {
    std::ifstream status(mController / (i == 0 ? "status" : "status." + std::to_string(i)));
    if (!status) {
      return ports;
    }
    // hub port sta spd dev sockfd local_busid
    for (std::string line; std::getline(status, line);) {
      std::istringstream words(line);
      std::string hub;
      std::string speed;
      std::string remote;
      std::string socket;
      Port port;
      unsigned state = 0;
      if (words >> hub >> port.number >> state >> speed >> remote >> socket >> port.device &&
          (hub == "ss") == superSpeed && state == (free ? kPortFree : kPortUsed)) {
        ports.push_back(std::move(port));
      }
    }
  }
}

UniqueFd Vhci::Attach(std::uint32_t speed, unsigned& port) const {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::runtime_error(std::string("cannot make a connection to the kernel: ") + std::strerror(errno));
  }
  UniqueFd ours(ends[0]);
  const UniqueFd theirs(ends[1]);
  const UniqueFd attach(open((mController / "attach").c_str(), O_WRONLY | O_CLOEXEC));
  if (!attach.IsValid()) {
    throw std::runtime_error(std::string("cannot plug a device in here: ") + std::strerror(errno));
  }
  for (const Port& candidate : Ports(speed >= kSuper, true)) {
    const std::string text = std::to_string(candidate.number) + " " + std::to_string(theirs.Get()) + " " +
                             std::to_string(kDeviceId) + " " + std::to_string(speed);
    if (write(attach.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
      port = candidate.number;
      return ours;
    }
    if (errno != EBUSY) {  // Busy: somebody else was faster.
      throw std::runtime_error(std::string("the kernel does not take the device: ") + std::strerror(errno));
    }
  }
  throw std::runtime_error(std::string("no port for a device of this speed is free (") +
                           (speed >= kSuper ? "SuperSpeed" : "up to high speed") +
                           "): detach another one, or give vhci-hcd more with its option num_controllers");
}

void Vhci::Unplug(const UniqueFd& connection, unsigned port, const StopSignal& stop,
                  const std::filesystem::path& devices) const {
  const auto name = DeviceOn(port);
  shutdown(connection.Get(), SHUT_RDWR);
  const auto deadline = std::chrono::steady_clock::now() + kUnplugTime;
  std::error_code error;
  // The kernel tells of it before it is done with it, and then nothing more.
  while (name && std::filesystem::exists(devices / *name, error) && std::chrono::steady_clock::now() < deadline &&
         !stop.IsRaised()) {
    stop.WaitFor(-1, 0, kUnplugStep);
  }
}

std::optional<std::string> Vhci::DeviceOn(unsigned port) const {
  for (const bool superSpeed : {false, true}) {
    for (const Port& used : Ports(superSpeed, false)) {
      if (used.number == port && used.device.find_first_not_of("0-") != std::string::npos) {
        return used.device;
      }
    }
  }
  return std::nullopt;
}

std::optional<BoundDevice> AwaitDrivers(const Vhci& vhci, unsigned port, std::chrono::milliseconds limit,
                                        const StopSignal& stop, const std::filesystem::path& devices) {
  const UniqueFd uevents = OpenUevents();
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::optional<BoundDevice> bound;
  while (true) {
    if (const auto name = vhci.DeviceOn(port)) {
      const std::string configuration = FirstLine(devices / *name / "bConfigurationValue");
      const std::string interfaces = FirstLine(devices / *name / "bNumInterfaces");
      const long count = std::strtol(interfaces.c_str(), nullptr, 10);
      bound.reset();
      if (!configuration.empty() && count > 0) {
        bound.emplace(BoundDevice{*name, {}});
      }
      for (long i = 0; bound && i < count; ++i) {
        std::error_code error;
        const auto driver = std::filesystem::read_symlink(
            devices / *name / (*name + ":" + configuration + "." + std::to_string(i)) / "driver", error);
        bound->drivers.push_back(error ? "-" : driver.filename().string());
      }
      if (bound && std::ranges::find(bound->drivers, "-") == bound->drivers.end()) {
        return bound;
      }
    }
    const auto quiet = std::chrono::steady_clock::now() + (bound ? kQuiet : limit);
    if (!AwaitUevent(uevents, std::min(deadline, quiet), stop)) {
      return bound;
    }
  }
}

}  // namespace vel
