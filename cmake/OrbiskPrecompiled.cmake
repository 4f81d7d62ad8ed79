# What most files include, compiled once: a third of the time of a build that is thrown away. Only in builds where that
# is the case (the sanitizers'), so that a file which forgets an include does not compile elsewhere.
set(precompiled_headers
  <algorithm> <array> <atomic> <cerrno> <chrono> <cstdint> <cstdio> <cstdlib> <cstring> <filesystem> <fstream>
  <functional> <iostream> <map> <memory> <mutex> <optional> <random> <set> <sstream> <stdexcept> <string> <string_view>
  <system_error> <thread> <unordered_map> <utility> <vector>
  <boost/asio/io_context.hpp> <boost/asio/local/stream_protocol.hpp> <boost/asio/post.hpp>
  <boost/asio/steady_timer.hpp> <gmock/gmock.h> <gtest/gtest.h> <jsoncpp/json/json.h>)

# Adds the targets of `directory` and of those below it to `result`.
function(orbisk_list_targets directory result)
  get_property(targets DIRECTORY "${directory}" PROPERTY BUILDSYSTEM_TARGETS)
  get_property(directories DIRECTORY "${directory}" PROPERTY SUBDIRECTORIES)
  foreach(below IN LISTS directories)
    orbisk_list_targets("${below}" targets)
  endforeach()
  set(${result} ${${result}} ${targets} PARENT_SCOPE)
endfunction()

# For each target made so far. Targets with the same compiler options share one.
function(orbisk_precompile_headers)
  orbisk_list_targets("${PROJECT_SOURCE_DIR}" targets)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(NOT type MATCHES "EXECUTABLE|SHARED_LIBRARY|STATIC_LIBRARY|OBJECT_LIBRARY")
      continue()
    endif()
    get_target_property(options ${target} COMPILE_OPTIONS)
    string(MD5 key "${options}")
    set(owner orbisk_precompiled_${key})
    if(NOT TARGET ${owner})
      file(WRITE "${CMAKE_BINARY_DIR}/precompiled.cpp" "")
      add_library(${owner} OBJECT "${CMAKE_BINARY_DIR}/precompiled.cpp")
      set_target_properties(${owner} PROPERTIES COMPILE_OPTIONS "${options}")
      target_precompile_headers(${owner} PRIVATE ${precompiled_headers})
    endif()
    target_precompile_headers(${target} REUSE_FROM ${owner})
  endforeach()
endfunction()
