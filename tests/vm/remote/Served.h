#ifndef VIRTUSB_TESTS_VM_REMOTE_SERVED_H
#define VIRTUSB_TESTS_VM_REMOTE_SERVED_H

#include <cstdint>
#include <span>
#include <string>

#include "SysDevice.h"
#include "remote/ConfigModel.h"
#include "support/CommandProcess.h"

namespace vel::vm {

// `virtusb serve --answer-failures` of one device in a child process, and its remote side.
class Served {
 public:
  explicit Served(const SysDevice& device);

  RemoteDevice& Remote() { return mCommand.Remote(); }
  CommandProcess& Process() { return mCommand; }

  // Open, detach the kernel drivers, claim; and the reverse. Throw Failure when one of them fails.
  void Take();
  void GiveBack();
  // Ends the service as a remote side does that is done. Throws Failure when that fails.
  void Done();

 private:
  void Check(Command command);

  CommandProcess mCommand;
};

// What the served device says of itself. Throws Failure when it cannot be read.
ConfigModel ConfigOf(RemoteDevice& remote);

enum class Way { kIn, kOut };
// The first endpoint of this direction and transfer type (LIBUSB_TRANSFER_TYPE_*) among the
// settings of the interface with this position. Throws Failure when there is none.
std::uint8_t EndpointOf(const ConfigModel& config, std::size_t interface, Way way, unsigned type);

}  // namespace vel::vm

#endif
