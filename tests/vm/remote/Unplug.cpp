#include <libusb-1.0/libusb.h>

#include <fstream>

#include "Commands.h"
#include "Pump.h"
#include "Served.h"

namespace vel::vm {
std::string Unplug(const std::string& place, Arguments arguments) {
  std::uint64_t whole = 0;  // Counted as long as the service answers.
  Served served(place);
  served.Take();
  const std::uint8_t source = served.Endpoint(0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
  constexpr std::uint64_t kPullAfter = 50;
  try {
    RunPump(served.Remote(), {.endpoint = source, .count = 1U << 20U, .depth = 16}, nullptr,
            [&](std::uint64_t, const TransferReply& reply) {
              RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status");
              if (++whole == kPullAfter) {
                std::ofstream(arguments[0]) << std::endl;
                throw Failure("the gadget is out");
              }
            });
  } catch (const std::exception& expected) {
    Require(whole >= kPullAfter, std::string("before the gadget is pulled out: ") + expected.what());
  }
  const CommandProcess::Ending ending = served.Process().Await();
  RequireEqual(ending.status, 1, "exit status (" + ending.messages + ")");
  Require(ending.messages.find("virtusb: the device is gone") != std::string::npos,
          "no message that the device left: " + ending.messages);
  return "ended with a message";
}

}  // namespace vel::vm
