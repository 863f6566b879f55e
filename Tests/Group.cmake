# Joins sources of tests to one, so that what they include is compiled once:
#   cmake -DGROUP=joined.cpp -DSOURCES=a.cpp;b.cpp -P Group.cmake
# Each stands in a namespace of its own, where its names meet no others; so what they include stands before all of them.
set(includes "")
set(bodies "")
foreach(source IN LISTS SOURCES)
  file(STRINGS "${source}" lines REGEX "^#include ")
  list(APPEND includes ${lines})
  get_filename_component(name "${source}" NAME_WE)
  string(APPEND bodies "\nnamespace In${name} {\n#include \"${source}\"\n}\n")
endforeach()
list(REMOVE_DUPLICATES includes)
list(SORT includes)
set(text "// Made by Group.cmake.\n\n")
foreach(include IN LISTS includes)
  string(REGEX REPLACE "^#include ([<\"][^>\"]*[>\"]).*" "\\1" header "${include}")
  # Some headers are there on some systems alone.
  string(APPEND text "#if __has_include(${header})\n#include ${header}\n#endif\n")
endforeach()
string(APPEND text "\nnamespace {\n${bodies}\n}  // namespace\n")

set(old "")
if(EXISTS "${GROUP}")
  file(READ "${GROUP}" old)
endif()
if(NOT text STREQUAL old)
  file(WRITE "${GROUP}" "${text}")
endif()
