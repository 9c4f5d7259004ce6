# The Debian package of the library, its headers and the tools
# (`./dev.sh package`, which configures with CMAKE_INSTALL_PREFIX=/usr).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME znvstorage)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
  "A C++20 client library with persistent, resumable uploads and downloads, its headers,\n\
CMake package and pkg-config file, the command-line client znv and the storage\n\
service emulator znv-emulator.")
set(CPACK_PACKAGE_CONTACT "ZNVStorage developers <znvstorage@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# Install with DESTDIR, so that CMAKE_INSTALL_PREFIX (written into
# znvstorage.pc) is the prefix on the target system, not the staging directory.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Run-time dependencies come from dpkg-shlibdeps; the headers need the
# development packages of the libraries they include.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_INSTALL_FULL_LIBDIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "nlohmann-json3-dev (>= 3), libspdlog-dev, libfmt-dev")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pkg-config, cmake")
include(CPack)
