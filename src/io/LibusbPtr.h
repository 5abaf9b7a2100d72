// libusb's objects behind deleters.
#ifndef VEL_IO_LIBUSB_PTR_H
#define VEL_IO_LIBUSB_PTR_H

#include <memory>

#include <libusb-1.0/libusb.h>

namespace vel {

struct LibusbDeleter {
  void operator()(libusb_context* context) const { libusb_exit(context); }
  void operator()(libusb_device* device) const { libusb_unref_device(device); }
  void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
  void operator()(libusb_config_descriptor* config) const { libusb_free_config_descriptor(config); }
  void operator()(libusb_transfer* transfer) const { libusb_free_transfer(transfer); }
  // A device list; the devices in it lose the list's reference.
  void operator()(libusb_device** list) const { libusb_free_device_list(list, 1); }
};

using LibusbContextPtr = std::unique_ptr<libusb_context, LibusbDeleter>;
using LibusbDevicePtr = std::unique_ptr<libusb_device, LibusbDeleter>;
using LibusbDeviceHandlePtr = std::unique_ptr<libusb_device_handle, LibusbDeleter>;
using LibusbConfigPtr = std::unique_ptr<libusb_config_descriptor, LibusbDeleter>;
using LibusbTransferPtr = std::unique_ptr<libusb_transfer, LibusbDeleter>;
using LibusbDeviceListPtr = std::unique_ptr<libusb_device*[], LibusbDeleter>;

}  // namespace vel

#endif
