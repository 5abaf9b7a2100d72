# Programs for Windows are run by Wine here: tests through the emulator, the commands as VIRTUSB_RUN and VIRTUSB_TRANSCODE_RUN.
# One prefix in the build folder serves all of them.
find_program(VIRTUSB_WINE wine REQUIRED)
set(VIRTUSB_WINE_PREFIX "${PROJECT_BINARY_DIR}/wine")
set(VIRTUSB_WINE_PATH "")
foreach(folder IN LISTS CMAKE_FIND_ROOT_PATH)
  string(APPEND VIRTUSB_WINE_PATH "${folder}/bin;")
endforeach()
execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=libstdc++-6.dll
  OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
cmake_path(GET runtime PARENT_PATH runtime)
string(APPEND VIRTUSB_WINE_PATH "${runtime};/usr/x86_64-w64-mingw32/lib")
configure_file(cmake/wine.sh.in "${PROJECT_BINARY_DIR}/wine.sh" @ONLY
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR "${PROJECT_BINARY_DIR}/wine.sh")
foreach(program IN ITEMS virtusb virtusb-transcode)
  file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/${program}" CONTENT
    "#!/bin/sh\nexec '${CMAKE_CROSSCOMPILING_EMULATOR}' '${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${program}.exe' \"$@\"\n")
  file(CHMOD "${PROJECT_BINARY_DIR}/${program}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endforeach()
