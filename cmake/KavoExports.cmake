# Reads cmake/kavoDVDB.exports and writes the export files of the shared
# library: a module definition file on Windows, a version script elsewhere.
#
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
    if(convention STREQUAL "stdcall")
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
