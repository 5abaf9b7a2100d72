#include <libusb-1.0/libusb.h>

#include <fstream>

#include "Commands.h"
#include "Require.h"
#include "Served.h"

namespace vel::vm {

std::string Keyboard(const SysDevice& device, Arguments arguments) {
  constexpr std::uint32_t kReport = 8;  // HID 1.11, appendix B.1.
  constexpr std::uint8_t kKeyA = 4;
  Served served(device);
  served.Take();
  RemoteDevice& remote = served.Remote();
  const std::uint8_t endpoint = EndpointOf(ConfigOf(remote), 0, Way::kIn, LIBUSB_TRANSFER_TYPE_INTERRUPT);
  std::ofstream(arguments[0]) << "@key a" << std::endl;
  std::string keys;
  bool down = false;
  bool up = false;
  while (!up) {
    const TransferReply reply = remote.Transfer(Command::kInterruptTransfer, endpoint, kReport);
    RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status");
    RequireEqual(static_cast<long long>(reply.data.size()), kReport, "bytes of a report");
    up = down && reply.data[2] == 0;
    down = down || reply.data[2] == kKeyA;
  }
  served.Done();
  return "key down and up reported";
}

}  // namespace vel::vm
