# Fails when sqlite3_open*, sqlite3_prepare* or sqlite3_exec appears in a .cpp
# or .h file below ROOT outside sqlitedb/, tests/ and bench/ (and outside build
# trees): every database is opened, prepared on and executed on through
# sqlitedb::connection.
#   cmake -DROOT=<source tree> -P raw_sqlite_calls.cmake
if(NOT ROOT)
  message(FATAL_ERROR "ROOT is not set")
endif()

file(GLOB_RECURSE _files RELATIVE ${ROOT} ${ROOT}/*.cpp ${ROOT}/*.h)
set(_found "")
foreach(_f ${_files})
  if(_f MATCHES "^(sqlitedb|tests|bench)/" OR _f MATCHES "^build[^/]*/" OR _f MATCHES "(^|/)\\.")
    continue()
  endif()
  file(STRINGS ${ROOT}/${_f} _lines REGEX "sqlite3_(open|prepare|exec([^A-Za-z0-9_]|$))")
  foreach(_l ${_lines})
    string(STRIP "${_l}" _l)
    string(APPEND _found "  ${_f}: ${_l}\n")
  endforeach()
endforeach()

if(_found)
  message(FATAL_ERROR "SQLite opened, prepared on or executed on outside sqlitedb/ "
                      "(use sqlitedb::connection):\n${_found}")
endif()
message(STATUS "no raw SQLite open, prepare or exec outside sqlitedb/")
