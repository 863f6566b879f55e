# The rules of `cmake --install` for the library, in three components: Library is what a program needs to run,
# Development what it needs to be built, and Tool, in Tools/kqzip, the tool. Nothing installed has an absolute path in
# it: a prefix can be moved.
include(CMakePackageConfigHelpers)

set(KQZIP_INSTALL_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/KQZip")
set(KQZIP_INSTALL_PKGCONFIG_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# Every header outside the folders Internal/ is public.
install(DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/KQZip" COMPONENT Development
  FILES_MATCHING PATTERN "*.h"
  PATTERN Internal EXCLUDE)

install(TARGETS KQZipShared KQZipStatic EXPORT KQZipTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT Library NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT Development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(EXPORT KQZipTargets NAMESPACE KQZip:: DESTINATION "${KQZIP_INSTALL_CMAKE_DIR}" COMPONENT Development)

if(BUILD_SHARED_LIBS)
  set(KQZIP_DEFAULT_TARGET KQZipShared)
else()
  set(KQZIP_DEFAULT_TARGET KQZipStatic)
endif()
configure_file("${PROJECT_SOURCE_DIR}/CMake/KQZipConfig.cmake.in" KQZipConfig.cmake @ONLY)
write_basic_package_version_file(KQZipConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/KQZipConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/KQZipConfigVersion.cmake"
  "${PROJECT_SOURCE_DIR}/CMake/Findutf8proc.cmake"
  DESTINATION "${KQZIP_INSTALL_CMAKE_DIR}" COMPONENT Development)

# The prefix as it is seen from the folder of kqzip.pc.
file(RELATIVE_PATH KQZIP_PKGCONFIG_TO_PREFIX
  "${CMAKE_INSTALL_PREFIX}/${KQZIP_INSTALL_PKGCONFIG_DIR}" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" KQZIP_PKGCONFIG_TO_PREFIX "${KQZIP_PKGCONFIG_TO_PREFIX}")
configure_file("${PROJECT_SOURCE_DIR}/CMake/kqzip.pc.in" kqzip.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/kqzip.pc"
  DESTINATION "${KQZIP_INSTALL_PKGCONFIG_DIR}" COMPONENT Development)
