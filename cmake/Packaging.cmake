# What embeds the module finds it by find_package(virtusb) or pkg-config.
include(CMakePackageConfigHelpers)

set(VIRTUSB_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/virtusb")

# The targets are exported only with the platform libraries built here: a client that brings its own has its own.
if(TARGET vel_framework AND TARGET vel_utils AND TARGET oskelo_log AND TARGET oskelo_camera)
  install(EXPORT virtusbTargets NAMESPACE virtusb:: DESTINATION "${VIRTUSB_CMAKE_DIR}" COMPONENT dev)
  configure_package_config_file(cmake/virtusbConfig.cmake.in "${PROJECT_BINARY_DIR}/virtusbConfig.cmake"
    INSTALL_DESTINATION "${VIRTUSB_CMAKE_DIR}" PATH_VARS VIRTUSB_MODULE_DIR)
  write_basic_package_version_file("${PROJECT_BINARY_DIR}/virtusbConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
  install(FILES "${PROJECT_BINARY_DIR}/virtusbConfig.cmake" "${PROJECT_BINARY_DIR}/virtusbConfigVersion.cmake"
    DESTINATION "${VIRTUSB_CMAKE_DIR}" COMPONENT dev)
endif()

# The packet format is a source-level interface: who writes a client needs VelPacket to hand packets in. The others are
# the exported classes of the camera pipeline, and what their declarations name.
foreach(header IN ITEMS
    base/HeapBlock.h base/LockOrder.h base/ModuleExport.h base/VelLog.h
    codec/CodecInput.h codec/CodecTypes.h codec/FfmpegLog.h codec/FfmpegPtr.h codec/FrameBlocks.h codec/FrameDump.h
    codec/FrameThinning.h codec/ThinnedQueue.h codec/UVCDecoderHandler.h codec/UVCEncoderHandler.h codec/UVCFrame.h
    policys/UVCDecoder.h policys/UVCEncoder.h policys/UVCFrameManager.h policys/UVCUtil.h
    protocol/ByteReader.h protocol/Commands.h protocol/ConfigRecords.h protocol/IsoTable.h protocol/Requests.h
    protocol/VelPacket.h
    uvc/UVCDescriptors.h uvc/UVCStreamCtrl.h)
  cmake_path(GET header PARENT_PATH room)
  install(FILES "src/${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/virtusb/${room}" COMPONENT dev)
endforeach()

configure_file(cmake/virtusb.pc.in "${PROJECT_BINARY_DIR}/virtusb.pc" @ONLY)
set(pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(CMAKE_INSTALL_LIBDIR STREQUAL "lib" AND EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
  set(pkgconfig_dir "lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig")  # Where a cross-building pkg-config looks, too.
endif()
install(FILES "${PROJECT_BINARY_DIR}/virtusb.pc" DESTINATION "${pkgconfig_dir}" COMPONENT dev)
install(FILES docs/architecture.md docs/protocol.md docs/threads.md
  DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/virtusb-dev" COMPONENT dev)

if(NOT WIN32)
  if(VIRTUSB_BUILD_HOST)
    include(CommandFiles)
  endif()
  include(DebianPackage)
endif()
