# Makes the database of fixed content and verifies it with the same build, in
# a directory of its own that is removed afterwards.
#   cmake -DTOOL=<engine_portable_file> -DDIRECTORY=<scratch directory> -P PortableFileRoundTrip.cmake
file(REMOVE_RECURSE "${DIRECTORY}")
file(MAKE_DIRECTORY "${DIRECTORY}")
foreach(step make verify)
  execute_process(COMMAND "${TOOL}" ${step} portable.kdb WORKING_DIRECTORY "${DIRECTORY}" RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    file(REMOVE_RECURSE "${DIRECTORY}")
    message(FATAL_ERROR "engine_portable_file ${step} failed: ${result}")
  endif()
endforeach()
file(REMOVE_RECURSE "${DIRECTORY}")
