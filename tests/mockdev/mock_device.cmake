# The mocked USB device, for tests and benchmarks.
include_guard(GLOBAL)
pkg_check_modules(umockdev REQUIRED IMPORTED_TARGET umockdev-1.0)

add_library(virtusb_mock_device STATIC "${CMAKE_CURRENT_LIST_DIR}/MockUsbDevice.cpp")
target_include_directories(virtusb_mock_device PUBLIC "${PROJECT_SOURCE_DIR}/tests")
target_link_libraries(virtusb_mock_device
  PUBLIC PkgConfig::umockdev virtusb_remote
  PRIVATE virtusb::options)
