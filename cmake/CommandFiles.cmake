# What a person and a machine have of the command beside the program: manual pages, completion, service, udev rule, papers.
install(FILES README.md docs/licences.md DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/virtusb" COMPONENT command)
install(FILES packaging/70-virtusb.rules DESTINATION "${CMAKE_INSTALL_DATADIR}/virtusb" COMPONENT command)
install(FILES packaging/completion/virtusb
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT command)
install(FILES packaging/systemd/virtusb@.service DESTINATION lib/systemd/system COMPONENT command)
install(FILES packaging/systemd/virtusb.sysusers DESTINATION lib/sysusers.d RENAME virtusb.conf COMPONENT command)
install(FILES packaging/systemd/virtusb.conf
  DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/virtusb/examples" COMPONENT command)

# Manual pages are made of the programs' own help.
find_package(Python3 COMPONENTS Interpreter)
find_program(VIRTUSB_GZIP gzip)
if(NOT Python3_Interpreter_FOUND OR NOT VIRTUSB_GZIP OR CMAKE_CROSSCOMPILING)
  message(STATUS "No manual pages: they take python3, gzip, and programs that run here")
  return()
endif()
file(STRINGS packaging/debian/changelog released REGEX "^ -- " LIMIT_COUNT 1)
string(REGEX REPLACE "^.*, *([0-9]+ [A-Z][a-z]+ [0-9]+) .*$" "\\1" released "${released}")
foreach(target IN ITEMS virtusb virtusb_transcode)
  string(REPLACE "_" "-" name ${target})
  set(page "${PROJECT_BINARY_DIR}/man/${name}.1")
  add_custom_command(OUTPUT "${page}.gz"
    COMMAND Python3::Interpreter "${PROJECT_SOURCE_DIR}/packaging/man/manpage.py" "$<TARGET_FILE:${target}>"
      "${PROJECT_VERSION}" "${released}" "${PROJECT_SOURCE_DIR}/packaging/man/${name}.man" "${page}"
    COMMAND "${VIRTUSB_GZIP}" -9nf "${page}"
    DEPENDS ${target} packaging/man/manpage.py packaging/man/${name}.man
    COMMENT "Making the manual page ${name}(1)" VERBATIM)
  list(APPEND pages "${page}.gz")
endforeach()
file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/man")
add_custom_target(virtusb_man ALL DEPENDS ${pages})
install(FILES ${pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT command)
