# What stands round the engine.
orbisk_add_test(search_server_test LABELS unit threads
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/catalog_test.cpp ${CMAKE_CURRENT_LIST_DIR}/hosted_index_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/file_viewer_test.cpp ${CMAKE_CURRENT_LIST_DIR}/problem_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/request_test.cpp ${CMAKE_CURRENT_LIST_DIR}/search_command_test.cpp
  LINK nimoelasticd_server nimoelasticd_core orbisk_test_system orbisk_test_main orbisk_record_capture acl)
target_compile_definitions(search_server_test PRIVATE SAMPLES_DIR="${CMAKE_CURRENT_LIST_DIR}/samples")
# A program of its own: it replaces a function of zstd and one of the C library.
orbisk_add_test(search_dispatcher_test LABELS unit threads
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/many_indexes_test.cpp ${CMAKE_CURRENT_LIST_DIR}/packing_test.cpp
  LINK nimoelasticd_server nimoelasticd_core orbisk_test_system orbisk_test_main orbisk_record_capture)
