// The cases of the kernel's usbtest driver (drivers/usb/misc/usbtest.c) that run on the zero gadget.
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "Checks.h"
#include "Commands.h"
#include "support/GuestDevice.h"

namespace vel::vm {
namespace {

struct UsbTestParameters {
  std::uint32_t testNumber;
  std::uint32_t iterations;
  std::uint32_t length;
  std::uint32_t vary;
  std::uint32_t listLength;
  std::uint32_t seconds;
  std::uint32_t microseconds;
};
constexpr unsigned long kUsbTestRequest = _IOWR('U', 100, UsbTestParameters);
constexpr std::uint32_t kCases = 30;

}  // namespace

std::string UsbTest(const std::string& place, Arguments arguments) {
  const auto iterations = static_cast<std::uint32_t>(std::stoul(arguments[0]));
  const UniqueFd device = OpenUsbNode(place);
  std::string passed;
  std::string failed;
  for (std::uint32_t number = 0; number < kCases; ++number) {
    // Whole packets at any speed: a shorter read of an endless source would be an overflow. Control writes are shorter.
    const bool control = number == 14 || number == 21;
    UsbTestParameters parameters{number, iterations, control ? 1024U : 4096U, control ? 512U : 1024U, 8, 0, 0};
    usbdevfs_ioctl request{0, static_cast<int>(kUsbTestRequest), &parameters};
    if (ioctl(device.Get(), USBDEVFS_IOCTL, &request) >= 0) {
      passed += " " + std::to_string(number);
    } else if (errno != EOPNOTSUPP) {
      failed += " " + std::to_string(number);
    }
  }
  return "usbtest passes" + passed + (failed.empty() ? "" : ", fails" + failed);
}

}  // namespace vel::vm
