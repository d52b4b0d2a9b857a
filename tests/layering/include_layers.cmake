# Fails when a .cpp or .h file includes a header of a layer above its own.
# The layers, lowest first, each using only those below it:
#   dct (with include/dct) < sqlitedb < catalog_shadow < appdb < offsite < tool
# Files elsewhere (tests, bench, fuzz, examples, build trees) may include any.
#   cmake -DROOT=<source tree> -P include_layers.cmake
if(NOT ROOT)
  message(FATAL_ERROR "ROOT is not set")
endif()

set(_layers dct sqlitedb catalog_shadow appdb offsite tool)

file(GLOB_RECURSE _files RELATIVE ${ROOT} ${ROOT}/*.cpp ${ROOT}/*.h)
set(_found "")
foreach(_f ${_files})
  if(_f MATCHES "^include/dct/")
    set(_own dct)
  elseif(_f MATCHES "^([a-z_]+)/")
    set(_own ${CMAKE_MATCH_1})
  else()
    continue()
  endif()
  list(FIND _layers ${_own} _own_level)
  if(_own_level LESS 0)
    continue()
  endif()
  file(STRINGS ${ROOT}/${_f} _lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"[a-z_]+/")
  foreach(_l ${_lines})
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([a-z_]+)/.*" "\\1" _used "${_l}")
    list(FIND _layers ${_used} _used_level)
    if(_used_level GREATER _own_level)
      string(STRIP "${_l}" _l)
      string(APPEND _found "  ${_f} (${_own}): ${_l}\n")
    endif()
  endforeach()
endforeach()

if(_found)
  message(FATAL_ERROR "includes of a layer above (order: ${_layers}):\n${_found}")
endif()
message(STATUS "every include points to the own layer or one below (${_layers})")
