# `cpack` makes Debian packages, one for each component: libkqzip1, libkqzip-dev and kqzip. Scripts/packages does it with
# the preset `package`, whose prefix /usr gives the libraries their place.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kqzip)
# A Debian package has to name somebody with an address; a domain below .invalid never belongs to anybody.
set(CPACK_PACKAGE_CONTACT "KQZip maintainers <maintainers@kqzip.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_COMPONENTS_ALL Library Development)
if(KQZIP_BUILD_TOOL)
  list(APPEND CPACK_COMPONENTS_ALL Tool)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Each package has a first line of its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME "libkqzip${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "library for ZIP archives without compression - shared library
It packs files or a whole folder into one ZIP archive without compressing
them, lists an archive and gives the files back, of any size.
.
This package has what programs that use the library need to run.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkqzip-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libkqzip${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), zlib1g-dev, libutf8proc-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "library for ZIP archives without compression - development files
It packs files or a whole folder into one ZIP archive without compressing
them, lists an archive and gives the files back, of any size.
.
This package has what programs that use the library need to be built: the
headers for C++20, the static library, and the files by which CMake and
pkg-config find them.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME kqzip)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "packs, lists, verifies and extracts ZIP archives without compression
It packs files or a whole folder into one ZIP archive without compressing
them, and lists, verifies and extracts such archives, those that were cut off
included.")

include(CPack)
