#ifndef VIRTUSB_HOST_REMOTE_MODULE_SESSION_H
#define VIRTUSB_HOST_REMOTE_MODULE_SESSION_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "protocol/VelPacket.h"
#include "remote/ModuleLibrary.h"
#include "remote/ReplyIdBook.h"
#include "vel/VelDeviceBase.h"
#include "vel/VelDriver.h"

namespace vel {

// Which device the module is to redirect.
struct DeviceIdentity {
  std::uint8_t bus = 0;
  std::uint8_t address = 0;
  std::uint16_t vendorId = 0;
  std::uint16_t productId = 0;
  std::string args;
};

// One device redirected by a loaded module in this process: the framework's part of the exchange.
class ModuleSession {
 public:
  // How the module is to answer.
  struct Answers {
    bool failures = false;  // Failed and cancelled transfers, too.
    bool lean = false;      // OUT replies without the request's data.
  };
  struct Options {
    std::uint32_t devId = 1;
    Answers answers;
    // Reply from the module, on its loop or completion threads. Must not close the session; while it blocks,
    // so does Close.
    std::function<void(std::unique_ptr<VelPacket>)> onReply;
    // Trace event; may be empty.
    std::function<void(const char* event, const VelTraceAttribute* attributes, std::size_t count)> onTrace;
  };

  // Opens a driver. Throws std::runtime_error when the module refuses.
  ModuleSession(std::shared_ptr<ModuleLibrary> library, DeviceIdentity identity, Options options);
  ModuleSession(const ModuleSession&) = delete;
  ModuleSession& operator=(const ModuleSession&) = delete;
  // Closes.
  ~ModuleSession();

  // Hands a request packet in. One thread at a time.
  void Post(std::unique_ptr<VelPacket> packet);
  // Gives the device back. No reply comes after it. Harmless when repeated.
  void Close();

 private:
  class Device;

  const std::shared_ptr<ModuleLibrary> mLibrary;
  const std::unique_ptr<Device> mDevice;
  std::unique_ptr<VelDriver> mDriver;
};

}  // namespace vel

#endif
