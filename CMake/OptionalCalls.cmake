# Looks for what only some systems have beyond POSIX; Source/Platform/Internal/NSOptionalCalls.cpp uses what is found.
include(CheckCXXSourceCompiles)
include(CheckCXXSymbolExists)
include(CheckLinkerFlag)
include(CheckStructHasMember)

set(optional_calls "")
if(NOT KQZIP_PLAIN_POSIX)
  check_cxx_symbol_exists(sendfile sys/sendfile.h KQZIP_HAS_SENDFILE)
  check_cxx_symbol_exists(copy_file_range unistd.h KQZIP_HAS_COPY_FILE_RANGE)
  check_cxx_symbol_exists(fallocate fcntl.h KQZIP_HAS_FALLOCATE)
  check_cxx_symbol_exists(posix_fadvise fcntl.h KQZIP_HAS_POSIX_FADVISE)
  check_cxx_symbol_exists(renameat2 stdio.h KQZIP_HAS_RENAMEAT2)
  check_cxx_symbol_exists(sched_getaffinity sched.h KQZIP_HAS_SCHED_GETAFFINITY)
  check_cxx_symbol_exists(DT_UNKNOWN dirent.h KQZIP_HAS_D_TYPE)
  check_cxx_source_compiles("
    #include <linux/openat2.h>
    #include <sys/syscall.h>
    int main() { open_how how{}; how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS; return SYS_openat2 + int(how.flags); }"
    KQZIP_HAS_OPENAT2)
  # A file that is looked for when it is needed.
  set(KQZIP_HAS_PROC_STATUS ON)
  list(APPEND optional_calls SENDFILE COPY_FILE_RANGE FALLOCATE POSIX_FADVISE RENAMEAT2 SCHED_GETAFFINITY D_TYPE OPENAT2
    PROC_STATUS)
endif()
# Not a matter of choice: where the field has this name, it has no other.
check_struct_has_member("struct stat" st_mtimespec sys/stat.h KQZIP_HAS_ST_MTIMESPEC LANGUAGE CXX)
list(APPEND optional_calls ST_MTIMESPEC)

foreach(call IN LISTS optional_calls)
  if(KQZIP_HAS_${call})
    set_property(SOURCE Platform/Internal/NSOptionalCalls.cpp APPEND PROPERTY COMPILE_DEFINITIONS KQZIP_HAS_${call})
  endif()
endforeach()

# A linker's own options.
check_linker_flag(CXX -Wl,--gc-sections KQZIP_LINKER_DROPS_SECTIONS)
check_linker_flag(CXX "-Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/KQZip.map" KQZIP_LINKER_HAS_VERSION_SCRIPTS)
