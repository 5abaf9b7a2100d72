# The mocked USB device, for tests and benchmarks.
include_guard(GLOBAL)
pkg_check_modules(umockdev IMPORTED_TARGET umockdev-1.0)
if(NOT umockdev_FOUND)
  message(FATAL_ERROR
    "umockdev is not here, and without it no real device is tested: install libumockdev-dev (Debian), "
    "or configure with -DVIRTUSB_BUILD_TESTS=OFF -DVIRTUSB_BUILD_BENCH=OFF.")
endif()

add_library(virtusb_mock_device STATIC
  "${CMAKE_CURRENT_LIST_DIR}/MockUsb.cpp" "${CMAKE_CURRENT_LIST_DIR}/MockUsbDevice.cpp")
target_link_libraries(virtusb_mock_device
  PUBLIC PkgConfig::umockdev virtusb_testing
  PRIVATE virtusb::options)
