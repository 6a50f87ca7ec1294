# `make package`: one Debian package (CPack's DEB generator) with everything `cmake --install`
# installs, under /usr. Its run-time dependencies come from dpkg-shlibdeps when it is there.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME veld)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "IP agent of a Linux switch OS and its state-machine library")
set(CPACK_PACKAGE_CONTACT "veld developers <veld@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
find_program(VELD_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(VELD_DPKG_SHLIBDEPS)
   set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
   # libVeldHelper is in the package itself.
   set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src/veld)
else()
   set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1, libmnl0, libnftables1")
endif()
# Interfaces configured with `dhcp` need the DHCP client the agent runs.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS udhcpc)
include(CPack)
