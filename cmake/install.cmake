# What `cmake --install` puts on a machine and what the .deb package holds: the programs,
# a manual page for each, the README and the licence.
include(GNUInstallDirs)

set(VREC_PROGRAMS vrec ${VREC_TOOL_PROGRAMS})
# The C++ and GCC runtimes go into the programs: a board's C library may lack the versions
# a dynamic build asks for, and the linked-in copy holds only what is used, which keeps the
# resident size down. The C library stays shared unless VREC_STATIC.
if(VREC_STATIC_RUNTIME AND NOT VREC_STATIC AND NOT VREC_SANITIZE)
  foreach(program ${VREC_PROGRAMS})
    # The linker leaves out the parts of those runtimes that nothing calls.
    target_link_options(${program} PRIVATE -static-libstdc++ -static-libgcc -Wl,--gc-sections)
  endforeach()
endif()
install(TARGETS ${VREC_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(program ${VREC_PROGRAMS})
  if(EXISTS ${PROJECT_SOURCE_DIR}/man/${program}.1)
    install(FILES ${PROJECT_SOURCE_DIR}/man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endforeach()
install(FILES README.md LICENSE NOTICE DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The programs alone, and where they are, for the scripts that cross-build and smoke-test them.
add_custom_target(programs DEPENDS ${VREC_PROGRAMS})
set(programList "")
foreach(program ${VREC_PROGRAMS})
  string(APPEND programList "$<TARGET_FILE:${program}>\n")
endforeach()
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/programs.txt CONTENT "${programList}")

# Debian package named after the target's architecture. A static build depends on nothing;
# a dynamic one on the C and C++ libraries it was linked with.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(debArch arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(debArch armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(debArch amd64)
else()
  set(debArch ${CMAKE_SYSTEM_PROCESSOR})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vrec)
set(CPACK_PACKAGE_VERSION ${VREC_VERSION})
set(CPACK_PACKAGE_VENDOR "Orvane")
set(CPACK_PACKAGE_CONTACT "Orvane vrec maintainers <vrec@orvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "baseband log capture for USB cellular modules, with a module simulator")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "vrec finds a USB cellular module's Diag and PCUI ports through sysfs, tells the\n\
module what to log and stores the log stream in rotating files; it also drives the\n\
module's own logging over AT commands and fetches the files the module saved.\n\
vrec-modemsim plays a module on pseudo-terminals and vrec-inspect checks a capture.")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${debArch})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
if(NOT VREC_STATIC)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
