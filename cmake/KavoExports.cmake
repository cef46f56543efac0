# Reads cmake/kavoDVDB.exports and writes the export files of the shared
# library: a module definition file on Windows, a version script elsewhere.
#
# KAVO_EXPORT_KIND names how the target's loader knows the listed functions:
#   linux  every function under its plain name
#   win32  the MS functions (cdecl) under their plain names, every other
#          family (stdcall) as _Name@N, N the bytes of its arguments
#   win64  every function under its plain name: 64-bit Windows has one
#          calling convention and decorates nothing
# The import library, the tests' table of exported names and
# scripts/check-exports follow the same kinds.
if(NOT WIN32)
  set(KAVO_EXPORT_KIND linux)
elseif(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(KAVO_EXPORT_KIND win64)
else()
  set(KAVO_EXPORT_KIND win32)
endif()

# Functions go into both. Classes ("class Name" lines) go into the version
# script only, as demangled patterns for every member, the virtual table and
# the type information; on Windows the classes' own dllexport marks export
# them beside the module definition file's functions.
function(kavo_generate_export_files exports_file out_def out_map)
  file(STRINGS "${exports_file}" lines REGEX "^[a-z]")
  set(def "LIBRARY kavoDVDB.dll\nEXPORTS\n")
  set(functions "")
  set(classes "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "[ \t]+" ";" fields "${line}")
    list(GET fields 0 convention)
    list(GET fields 1 name)
    if(convention STREQUAL "class")
      string(APPEND classes "      ${name}::*;\n      \"vtable for ${name}\";\n"
                            "      \"typeinfo for ${name}\";\n      \"typeinfo name for ${name}\";\n")
      continue()
    endif()
    if(convention STREQUAL "stdcall" AND KAVO_EXPORT_KIND STREQUAL "win32")
      list(GET fields 2 bytes)
      # The linker adds the leading underscore of the C symbol itself, so
      # the internal name is written without it; the exported name keeps it.
      string(APPEND def "  _${name}@${bytes} = ${name}@${bytes}\n")
    else()
      string(APPEND def "  ${name}\n")
    endif()
    string(APPEND functions "    ${name};\n")
  endforeach()
  set(map "KAVODVDB_1 {\n  global:\n${functions}")
  if(NOT classes STREQUAL "")
    string(APPEND map "    extern \"C++\" {\n${classes}    };\n")
  endif()
  string(APPEND map "  local:\n    *;\n};\n")
  file(WRITE "${out_def}" "${def}")
  file(WRITE "${out_map}" "${map}")
endfunction()
