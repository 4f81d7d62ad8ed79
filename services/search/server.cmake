# nimoelasticd's server: everything round the engine.
set(server_dir "${CMAKE_CURRENT_LIST_DIR}")
add_library(nimoelasticd_server STATIC
  ${server_dir}/account.cpp
  ${server_dir}/catalog.cpp
  ${server_dir}/commands.cpp
  ${server_dir}/daemon.cpp
  ${server_dir}/dispatcher.cpp
  ${server_dir}/document_commands.cpp
  ${server_dir}/event_handler.cpp
  ${server_dir}/file_viewer.cpp
  ${server_dir}/hosted_index.cpp
  ${server_dir}/index_commands.cpp
  ${server_dir}/json_scanner.cpp
  ${server_dir}/json_text.cpp
  ${server_dir}/lanes.cpp
  ${server_dir}/maintenance.cpp
  ${server_dir}/mover.cpp
  ${server_dir}/problem.cpp
  ${server_dir}/registry.cpp
  ${server_dir}/request.cpp
  ${server_dir}/search_commands.cpp
  ${server_dir}/server.cpp
  ${server_dir}/session.cpp
  ${server_dir}/whole_file.cpp)
target_include_directories(nimoelasticd_server PUBLIC "${PROJECT_SOURCE_DIR}" PRIVATE "${PROJECT_SOURCE_DIR}/include")
target_link_libraries(nimoelasticd_server
  PUBLIC service_base PRIVATE ${CMAKE_DL_LIBS})
target_compile_definitions(nimoelasticd_server PRIVATE NIMOELASTICD_VERSION="${PROJECT_VERSION}")
