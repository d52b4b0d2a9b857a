# Fails when a .cpp or .h file below ROOT names any of SQLite's own calls or
# types (an identifier starting "sqlite3_") outside sqlitedb/: every database
# is opened, prepared, bound, stepped, read and controlled through
# sqlitedb::connection and its statements.
#   cmake -DROOT=<source tree> -P raw_sqlite_calls.cmake
# Not looked at: sqlitedb/ itself; tests/ and bench/, which drive SQLite
# directly to set up and watch what the libraries do; examples/, programs
# built against the installed headers alone, where sqlitedb is not offered; and
# build trees. fuzz/ is looked at: its targets are built with the libraries'
# own headers. The class sqlite3_wrapper is the wrapper's own name, and a
# name that only ends in "sqlite3_..." (as the log text "close_sqlite3_db")
# is no call.
if(NOT ROOT)
  message(FATAL_ERROR "ROOT is not set")
endif()

file(GLOB_RECURSE _files RELATIVE ${ROOT} ${ROOT}/*.cpp ${ROOT}/*.h)
set(_call "(^|[^A-Za-z0-9_])sqlite3_[A-Za-z0-9_]")
set(_found "")
foreach(_f ${_files})
  if(_f MATCHES "^(sqlitedb|tests|bench|examples)/" OR _f MATCHES "^build[^/]*/" OR _f MATCHES "(^|/)\\.")
    continue()
  endif()
  file(STRINGS ${ROOT}/${_f} _lines REGEX "sqlite3_")
  foreach(_l ${_lines})
    string(REGEX REPLACE "(^|[^A-Za-z0-9_])sqlite3_wrapper([^A-Za-z0-9_]|$)" "\\1\\2" _rest "${_l}")
    if(NOT _rest MATCHES "${_call}")
      continue()
    endif()
    string(STRIP "${_l}" _l)
    string(APPEND _found "  ${_f}: ${_l}\n")
  endforeach()
endforeach()

if(_found)
  message(FATAL_ERROR "SQLite called outside sqlitedb/ "
                      "(use sqlitedb::connection and sqlitedb::statement_ref):\n${_found}")
endif()
message(STATUS "no SQLite call outside sqlitedb/")
