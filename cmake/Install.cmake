# `cmake --install`: libVeldHelper (versioned) with its public headers, the static libraries
# it links (so that a consumer links too), the veld program, its systemd unit and example
# configurations, a CMake package (find_package(veld): veld::VeldHelper) and veld.pc.
#
# The headers include each other from the src tree's root ("veld/root/Root.h",
# "mox/Ptr.h"), so they go to <includedir>/veld/<dir>/ and consumers use
# -I<prefix>/include/veld. The static libraries go to <libdir>/veld/, out of the way.
include(CMakePackageConfigHelpers)

set(VELD_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/veld)
set(VELD_STATIC_LIBDIR ${CMAKE_INSTALL_LIBDIR}/veld)

install(TARGETS VeldHelper mox konet konetlinux konetnft platform
   EXPORT veldTargets
   LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
   ARCHIVE DESTINATION ${VELD_STATIC_LIBDIR})
install(DIRECTORY
      ${PROJECT_SOURCE_DIR}/src/mox ${PROJECT_SOURCE_DIR}/src/konet
      ${PROJECT_SOURCE_DIR}/src/linux ${PROJECT_SOURCE_DIR}/src/platform
      ${PROJECT_SOURCE_DIR}/src/veld
   DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veld
   FILES_MATCHING PATTERN "*.h")
install(EXPORT veldTargets NAMESPACE veld:: DESTINATION ${VELD_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/veldConfig.cmake.in
   ${PROJECT_BINARY_DIR}/veldConfig.cmake INSTALL_DESTINATION ${VELD_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/veldConfigVersion.cmake
   COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/veldConfig.cmake ${PROJECT_BINARY_DIR}/veldConfigVersion.cmake
   DESTINATION ${VELD_CMAKEDIR})

# veld.pc finds its prefix from its own place, so that it holds under any --prefix.
file(RELATIVE_PATH VELD_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VELD_PC_TO_PREFIX "${VELD_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/veld.pc.in ${PROJECT_BINARY_DIR}/veld.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/veld.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The program, and its unit with the installed paths.
install(TARGETS veld RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
set(VELD_UNIT ${PROJECT_SOURCE_DIR}/examples/veld.service)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${VELD_UNIT})
file(READ ${VELD_UNIT} VELD_UNIT_TEXT)
string(REPLACE "/usr/sbin/veld" "${CMAKE_INSTALL_FULL_SBINDIR}/veld" VELD_UNIT_TEXT "${VELD_UNIT_TEXT}")
string(REPLACE "/etc/veld/" "${CMAKE_INSTALL_FULL_SYSCONFDIR}/veld/" VELD_UNIT_TEXT "${VELD_UNIT_TEXT}")
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/veld.service CONTENT "${VELD_UNIT_TEXT}")
install(FILES ${PROJECT_BINARY_DIR}/veld.service DESTINATION lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/examples/demo.json ${PROJECT_SOURCE_DIR}/examples/switch.json
              ${PROJECT_SOURCE_DIR}/examples/dhcp.json
   DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# veld(8), from the program's own --help texts (not in sanitized builds, whose program
# may report leaks at exit), and the bash completion.
if(NOT VELD_SANITIZE)
   add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/veld.8
      COMMAND ${PROJECT_SOURCE_DIR}/scripts/gen-man $<TARGET_FILE:veld> ${PROJECT_VERSION}
              > ${PROJECT_BINARY_DIR}/veld.8
      DEPENDS veld ${PROJECT_SOURCE_DIR}/scripts/gen-man
      COMMENT "Generating veld.8")
   add_custom_target(veld-man ALL DEPENDS ${PROJECT_BINARY_DIR}/veld.8)
   install(FILES ${PROJECT_BINARY_DIR}/veld.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/scripts/completion/veld.bash
   DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME veld)
