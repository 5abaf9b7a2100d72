#ifndef VIRTUSB_HOST_CMD_DEVICES_DEVICE_HOLD_H
#define VIRTUSB_HOST_CMD_DEVICES_DEVICE_HOLD_H

#include <memory>
#include <string>
#include <vector>

#include "remote/ModuleSession.h"

namespace vel {

// A local device in this process's hands: no other redirection takes it meanwhile, and the kernel drivers and the
// configuration that it had come back at the end, where the system does not bring them back by itself. They are also
// written to a file, so that after a kill the next hold of the device brings them back. One thread at a time.
class DeviceHold {
 public:
  // Throws std::runtime_error, with a text that says what to do, when the device cannot be opened or another
  // redirection has it.
  explicit DeviceHold(const DeviceIdentity& identity);
  DeviceHold(const DeviceHold&) = delete;
  DeviceHold& operator=(const DeviceHold&) = delete;
  // Puts right what is not.
  ~DeviceHold();

  // What was done to bring the device back.
  struct Repair {
    int configuration = 0;             // That was set; 0: it was right.
    std::vector<unsigned> interfaces;  // Whose drivers are back.
    std::string failure;               // Empty: none.
  };
  enum class Drivers { kAsFound, kAll };
  // To be called when no session has the device. A device that is gone needs nothing.
  Repair PutRight(Drivers drivers = Drivers::kAsFound);

  // Who has the device without a lock: a program other than this one. Empty when none claims anything of it.
  std::string OtherProgram() const;

 private:
  struct State;  // This system's.

  const std::unique_ptr<State> mState;
};

// Holds the device when it is a local one.
std::unique_ptr<DeviceHold> HoldIfLocal(const DeviceIdentity& identity);

}  // namespace vel

#endif
