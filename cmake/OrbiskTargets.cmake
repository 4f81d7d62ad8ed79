# Helpers that keep the targets of the tree alike.

# A part of libfileindex: object files that only include what its row of the layer table allows.
function(orbisk_add_layer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/include")
  target_link_libraries(${name} PUBLIC ${ARG_LINK})
endfunction()

# One test program and its ctest entry.
#   LABELS      unit, contract, system ... (ctest -L); "threads" besides where threads run in the test or in what it
#               starts: the thread sanitizer looks at these (target threads_tests)
#   TIMEOUT     seconds for the whole program; each test case inside has its own limit (tests/support)
#   SERIAL      do not run beside other tests
#   ARGS        arguments for the run
function(orbisk_add_test name)
  cmake_parse_arguments(ARG "SERIAL" "TIMEOUT" "SOURCES;LINK;LABELS;ARGS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/tests")
  target_link_libraries(${name} PRIVATE ${ARG_LINK})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_test(NAME ${name} COMMAND ${name} ${ARG_ARGS})
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "ORBISK_BIN_DIR=${CMAKE_BINARY_DIR}/bin;UBSAN_OPTIONS=print_stacktrace=1;TSAN_OPTIONS=halt_on_error=1")
  if("threads" IN_LIST ARG_LABELS)
    add_dependencies(threads_tests ${name})
  endif()
  if(ARG_SERIAL)
    set_tests_properties(${name} PROPERTIES RUN_SERIAL ON)
  endif()
endfunction()
