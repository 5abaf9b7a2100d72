# How every target of this project is compiled: warnings, sanitizers, reproducible file names.
# The end of the names of files that only the one system or only the other has.
set(VIRTUSB_SYSTEM $<IF:$<BOOL:${WIN32}>,Windows,Posix>)

add_library(virtusb_options INTERFACE)
add_library(virtusb::options ALIAS virtusb_options)

target_compile_features(virtusb_options INTERFACE cxx_std_20)

target_compile_options(virtusb_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wundef -Wcast-align
  # Log lines carry the file's name; none carries the folder that it was built in.
  "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # The lock annotations of vel/Mutex.h are checked by clang, and the order of base/LockOrder.h.
  target_compile_options(virtusb_options INTERFACE -Wthread-safety -Wthread-safety-beta)
else()
  target_compile_options(virtusb_options INTERFACE -Wduplicated-cond -Wlogical-op
    # False alarms of g++ 12 inside std::string and std::optional when it optimises (GCC bugs 105651, 105562).
    -Wno-restrict -Wno-maybe-uninitialized)
endif()
if(VIRTUSB_WERROR)
  target_compile_options(virtusb_options INTERFACE -Werror)
endif()

if(VIRTUSB_SANITIZE)
  add_compile_options("-fsanitize=${VIRTUSB_SANITIZE}" -fno-omit-frame-pointer)
  add_link_options("-fsanitize=${VIRTUSB_SANITIZE}")
  if(VIRTUSB_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
if(VIRTUSB_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "VIRTUSB_BUILD_FUZZ needs clang: use the preset 'fuzz'")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# What is distributed is hardened as the distribution's own programs are.
if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND CMAKE_BUILD_TYPE STREQUAL "Release")
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong -fno-plt)
  add_link_options(-Wl,-z,relro,-z,now)
  # The module is optimised as a whole: a request crosses a dozen files in 100 ns.
  include(CheckIPOSupported)
  check_ipo_supported(RESULT VIRTUSB_WHOLE_MODULE LANGUAGES CXX)
endif()

# Lets the linker optimise a target of the module together with the others, in what is distributed.
function(virtusb_optimise_whole target)
  if(VIRTUSB_WHOLE_MODULE)
    set_target_properties(${target} PROPERTIES INTERPROCEDURAL_OPTIMIZATION ON)
  endif()
endfunction()
