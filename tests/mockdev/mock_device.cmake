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

# Properties of a test that uses it. A sanitizer's own library has to be loaded before the one that mocks the kernel.
set(preload libumockdev-preload.so.0)
foreach(sanitizer IN ITEMS address:libasan thread:libtsan)
  string(REPLACE ":" ";" sanitizer "${sanitizer}")
  list(POP_FRONT sanitizer name)
  if(VIRTUSB_SANITIZE MATCHES "${name}")
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=${sanitizer}.so
      OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
    set(preload "${runtime}:${preload}")
  endif()
endforeach()
set(VIRTUSB_MOCK_PROPERTIES LABELS mockdev ENVIRONMENT "LD_PRELOAD=${preload}")
if(VIRTUSB_SANITIZE MATCHES "thread")
  list(APPEND VIRTUSB_MOCK_PROPERTIES ENVIRONMENT_MODIFICATION
    "TSAN_OPTIONS=set:halt_on_error=1:suppressions=${PROJECT_SOURCE_DIR}/tests/mockdev/tsan.supp")
endif()
set(VIRTUSB_MOCK_PROPERTIES "${VIRTUSB_MOCK_PROPERTIES}" CACHE INTERNAL "")
