# The libusb backend, relative to src/.
set(VIRTUSB_LIBUSB_SOURCES
  io/LibusbConfigs.cpp
  io/LibusbContext.cpp
  io/LibusbControl.cpp
  io/LibusbDevice.cpp
  io/LibusbHandle.cpp
  io/LibusbIo.cpp
  io/LibusbTransfer.cpp)
