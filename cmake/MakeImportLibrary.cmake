# Run after the DLL is linked (cmake -P): remakes its import library from the
# definition file the linker wrote of every export (ALL_DEF).
#   KIND=win32  Exports named _Name@N are stdcall functions: the import
#               library binds a C caller's Name@N to them ("Name@N ==
#               _Name@N"); every other export (the MS functions, the members
#               of exported classes) passes through unchanged.
#   KIND=win64  Every export passes through unchanged: names are plain and a
#               caller's reference is the exported name itself.
#   -D KIND=win32|win64 -D ALL_DEF=... -D DLLTOOL=... -D IMPORT_LIBRARY=...
#   -D DLL_NAME=kavoDVDB.dll
# DLLTOOL must be the target's own: it writes the import library for the
# machine it was built for.
if(NOT KIND STREQUAL "win32" AND NOT KIND STREQUAL "win64")
  message(FATAL_ERROR "KIND must be win32 or win64, not '${KIND}'")
endif()
file(STRINGS "${ALL_DEF}" lines)
set(def "LIBRARY ${DLL_NAME}\nEXPORTS\n")
foreach(line IN LISTS lines)
  # Lines read "    name[ = internal] @ordinal[ DATA]".
  if(KIND STREQUAL "win32" AND line MATCHES "^[ \t]+_([A-Za-z0-9_]+)@([0-9]+)([ \t]+=[ \t]+[^ \t]+)?[ \t]+@[0-9]+(.*)$")
    string(APPEND def "  ${CMAKE_MATCH_1}@${CMAKE_MATCH_2} == _${CMAKE_MATCH_1}@${CMAKE_MATCH_2}${CMAKE_MATCH_4}\n")
  elseif(line MATCHES "^[ \t]+([^ \t]+)([ \t]+=[ \t]+[^ \t]+)?[ \t]+@[0-9]+(.*)$")
    string(APPEND def "  ${CMAKE_MATCH_1}${CMAKE_MATCH_3}\n")
  endif()
endforeach()
get_filename_component(directory "${IMPORT_LIBRARY}" DIRECTORY)
set(import_def "${directory}/kavoDVDB-import.def")
file(WRITE "${import_def}" "${def}")
execute_process(COMMAND "${DLLTOOL}" -d "${import_def}" -l "${IMPORT_LIBRARY}" -D "${DLL_NAME}"
                RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "the import library could not be made (${result})")
endif()
