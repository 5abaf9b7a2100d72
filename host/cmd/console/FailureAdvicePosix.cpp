#include "cmd/console/FailureAdvice.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <string>

#include "cmd/console/Output.h"

namespace vel {
namespace {

constexpr char kLimitFile[] = "/sys/module/usbcore/parameters/usbfs_memory_mb";

// A submission that failed with LIBUSB_ERROR_NO_MEM (-11), by transfer type.
constexpr std::array<std::string_view, 3> kNoMemory = {
    "bulkTransfer error ret[-11]", "Error submitting interrupt transfer, -11", "Error submitting iso transfer, -11"};

}  // namespace

void AdviseOnce(std::string_view line) {
  static std::atomic<bool> noted{false};
  const bool met = std::ranges::any_of(
      kNoMemory, [line](std::string_view text) { return line.find(text) != std::string_view::npos; });
  if (!met || noted.exchange(true)) {
    return;
  }
  std::string value = "unknown";
  std::ifstream(kLimitFile) >> value;
  Note(
      "a transfer failed at the kernel's limit of memory for all USB transfers of programs: usbcore.usbfs_memory_mb "
      "is " +
      value + " (in MB, 0 for none; write another into " + kLimitFile + ")");
}

}  // namespace vel
