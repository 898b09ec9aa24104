# Checks a Windows kvxpx.dll: its export table holds exactly the functions the
# public header declares, under their plain names (no leading underscore, no
# @N), its .def file lists the same names, and it imports only KERNEL32,
# USER32 and the C runtime.
#   cmake -DLIB=kvxpx.dll -DHEADER=kvxpx.h -DOBJDUMP=objdump [-DDEF=kvxpx.def] -P check_dll.cmake
execute_process(COMMAND ${OBJDUMP} -p ${LIB} OUTPUT_VARIABLE dump RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${OBJDUMP} -p failed on ${LIB}")
endif()

# Declared functions.
include(${CMAKE_CURRENT_LIST_DIR}/header_names.cmake)
kvx_header_names(${HEADER} declared)
list(LENGTH declared n_declared)

# Exported names: the "[Ordinal/Name Pointer] Table" lines "[   n] name".
string(REGEX MATCH "\\[Ordinal/Name Pointer\\] Table[^\n]*\n(.*)" _ "${dump}")
set(table "${CMAKE_MATCH_1}")
string(REGEX MATCHALL "\t\\[ *[0-9]+\\] [^\n]+" rows "${table}")
set(exported "")
foreach(row ${rows})
  string(REGEX REPLACE "^\t\\[ *[0-9]+\\] " "" name "${row}")
  list(APPEND exported ${name})
endforeach()
list(LENGTH exported n_exported)

set(foreign ${exported})
list(REMOVE_ITEM foreign ${declared})
set(missing ${declared})
list(REMOVE_ITEM missing ${exported})
if(foreign)
  message(FATAL_ERROR "exported but not declared in the header: ${foreign}")
endif()
if(missing)
  message(FATAL_ERROR "declared but not exported: ${missing}")
endif()

# The .def file lists the same names.
if(DEF)
  file(STRINGS ${DEF} def_lines)
  set(def_names "")
  foreach(line ${def_lines})
    string(STRIP "${line}" line)
    if(line MATCHES "^(EXPORTS|LIBRARY|;)" OR line STREQUAL "")
      continue()
    endif()
    string(REGEX REPLACE "[ @].*$" "" line "${line}")
    list(APPEND def_names ${line})
  endforeach()
  set(d1 ${def_names})
  list(REMOVE_ITEM d1 ${declared})
  set(d2 ${declared})
  list(REMOVE_ITEM d2 ${def_names})
  if(d1 OR d2)
    message(FATAL_ERROR "${DEF} differs from the header: extra ${d1}; missing ${d2}")
  endif()
endif()

# Imported DLLs.
string(REGEX MATCHALL "DLL Name: [^\n]+" imports "${dump}")
set(bad "")
set(names "")
foreach(imp ${imports})
  string(REGEX REPLACE "^DLL Name: " "" dll "${imp}")
  string(TOLOWER "${dll}" low)
  list(APPEND names ${dll})
  if(NOT low MATCHES "^(kernel32|user32|msvcrt|ucrtbase)\\.dll$" AND NOT low MATCHES "^api-ms-win-crt-[a-z0-9-]+\\.dll$")
    list(APPEND bad ${dll})
  endif()
endforeach()
if(bad)
  message(FATAL_ERROR "imports beyond KERNEL32, USER32 and the C runtime: ${bad}")
endif()
message(STATUS "${LIB}: ${n_exported} exports = the header's ${n_declared} functions; imports ${names}")
