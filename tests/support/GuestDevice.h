#ifndef VIRTUSB_TESTS_SUPPORT_GUEST_DEVICE_H
#define VIRTUSB_TESTS_SUPPORT_GUEST_DEVICE_H

#include <fcntl.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "io/LibusbPtr.h"
#include "remote/FdStream.h"

namespace vel {

// The node of the device at BUS:ADDRESS. Throws std::runtime_error.
inline UniqueFd OpenUsbNode(const std::string& place) {
  char path[64];
  static_cast<void>(std::snprintf(path, sizeof path, "/dev/bus/usb/%03d/%03d", std::stoi(place),
                                  std::stoi(place.substr(place.find(':') + 1))));
  UniqueFd node(open(path, O_RDWR));
  if (!node.IsValid()) {
    throw std::runtime_error(std::string("cannot open ") + path);
  }
  return node;
}

// A device of this machine as a guest's program has it: libusb, the kernel's driver off its first interface. One
// thread.
class GuestDevice {
 public:
  // BUS:ADDRESS. Throws std::runtime_error.
  explicit GuestDevice(const std::string& place) : mNode(OpenUsbNode(place)) {
    libusb_context* context = nullptr;
    libusb_device_handle* handle = nullptr;
    Require(libusb_init(&context), "libusb does not start");
    mContext.reset(context);
    Require(libusb_wrap_sys_device(context, mNode.Get(), &handle), "the device cannot be opened");
    mHandle.reset(handle);
    libusb_set_auto_detach_kernel_driver(handle, 1);
    Require(libusb_claim_interface(handle, 0), "the interface cannot be claimed");
  }

  libusb_device_handle* Handle() const { return mHandle.get(); }
  // Runs transfers until `left` is 0.
  void Await(const int& left) const {
    while (left > 0) {
      libusb_handle_events(mContext.get());
    }
  }

 private:
  static void Require(int result, const char* otherwise) {
    if (result != 0) {
      throw std::runtime_error(std::string(otherwise) + ": " + libusb_error_name(result));
    }
  }

  const UniqueFd mNode;
  LibusbContextPtr mContext;
  LibusbDeviceHandlePtr mHandle;
};

}  // namespace vel

#endif
