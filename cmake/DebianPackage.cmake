# "cpack -G DEB" in the build folder makes two packages: virtusb, which is what a machine runs, and virtusb-dev, what a client
# is built with. The module and the platform libraries are private to virtusb: no other package links with them by their names.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/debian/changelog)
file(STRINGS packaging/debian/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^virtusb [(]([^-]+)-([0-9]+)[)]" OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/debian/changelog begins with another version than ${PROJECT_VERSION}: ${newest}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME virtusb)
set(CPACK_PACKAGE_CONTACT "virtusb maintainers <maintainers@virtusb.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # Each package has its own.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${PROJECT_BINARY_DIR}/platform/log;${PROJECT_BINARY_DIR}/platform/utils;${PROJECT_BINARY_DIR}/platform/framework;${PROJECT_BINARY_DIR}/platform/camera")

set(CPACK_DEBIAN_RUN_PACKAGE_NAME virtusb)
set(CPACK_DEBIAN_RUN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_RUN_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_RUN_PACKAGE_SUGGESTS "usbutils, bash-completion")
set(CPACK_DEBIAN_RUN_PACKAGE_CONTROL_EXTRA
  "${PROJECT_SOURCE_DIR}/packaging/debian/postinst;${PROJECT_SOURCE_DIR}/packaging/debian/prerm;${PROJECT_SOURCE_DIR}/packaging/debian/postrm")
set(CPACK_DEBIAN_RUN_DESCRIPTION "USB redirection of a remote desktop's client
The module with which a remote-desktop client carries out the USB requests
of a virtual machine's guest on devices of the client machine, real or
emulated, and the command virtusb, which is its remote side: it lists and
describes devices, serves them to other machines, puts them on a Linux
guest's own USB bus, and streams a camera as H.264.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME virtusb-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "virtusb (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libusb-1.0-0-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "USB redirection of a remote desktop's client, for building clients
Headers, libraries, CMake and pkg-config files for a client that loads the
module of the package virtusb, or uses its camera pipeline as a library.")

# The papers of each package: under its own name.
find_program(VIRTUSB_GZIP gzip)
if(VIRTUSB_GZIP)
  foreach(paper IN ITEMS "CHANGELOG.md changelog" "packaging/debian/changelog changelog.Debian")
    separate_arguments(paper)
    list(GET paper 0 from)
    list(GET paper 1 to)
    add_custom_command(OUTPUT "${PROJECT_BINARY_DIR}/papers/${to}.gz"
      COMMAND "${CMAKE_COMMAND}" -E copy "${PROJECT_SOURCE_DIR}/${from}" "${PROJECT_BINARY_DIR}/papers/${to}"
      COMMAND "${VIRTUSB_GZIP}" -9nf "${PROJECT_BINARY_DIR}/papers/${to}"
      DEPENDS "${from}" VERBATIM)
    list(APPEND papers "${PROJECT_BINARY_DIR}/papers/${to}.gz")
  endforeach()
  add_custom_target(virtusb_papers ALL DEPENDS ${papers})
endif()
foreach(package IN ITEMS "virtusb command" "virtusb-dev dev")
  separate_arguments(package)
  list(GET package 0 name)
  list(GET package 1 component)
  install(FILES packaging/debian/copyright ${papers}
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${name}" COMPONENT ${component})
endforeach()

include(CPack)
cpack_add_component(command GROUP run)
cpack_add_component(module GROUP run)
cpack_add_component(dev GROUP dev)
cpack_add_component_group(run)
cpack_add_component_group(dev)
