#ifndef VIRTUSB_HOST_CMD_DEVICE_HOLD_H
#define VIRTUSB_HOST_CMD_DEVICE_HOLD_H

#include <memory>
#include <string>
#include <vector>

#include "cmd/DeviceNode.h"
#include "remote/ModuleSession.h"

namespace vel {

// A local device in this process's hands: no other redirection takes it meanwhile, and the kernel drivers and the
// configuration that it had come back at the end. They are also written to a file, so that after a kill the next hold
// of the device brings them back. One thread at a time.
class DeviceHold {
 public:
  // Throws as DeviceNode.
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
  struct State {
    int configuration = 0;      // 0: unknown, and never set.
    unsigned long drivers = 0;  // Bit n: interface n had one.
  };

  State Look() const;
  // From a redirection that was killed.
  bool ReadRecord();
  void WriteRecord() const;

  const DeviceIdentity mIdentity;
  const DeviceNode mNode;
  const std::string mRecord;  // Path; empty where there is no place for it.
  State mFound;
};

// Holds the device when it is a local one.
std::unique_ptr<DeviceHold> HoldIfLocal(const DeviceIdentity& identity);

}  // namespace vel

#endif
