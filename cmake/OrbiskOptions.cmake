# Compiler settings that hold for every target of the tree.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/archive")

# Installed programs and libraries find ours from where they lie, whatever the prefix.
file(RELATIVE_PATH bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set(CMAKE_INSTALL_RPATH "$ORIGIN/${bin_to_lib};$ORIGIN")

set(ORBISK_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined")
option(ORBISK_FUZZ "Build the fuzz targets as libFuzzer programs; needs clang" OFF)
option(ORBISK_WERROR "Treat compiler warnings as errors" ON)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(ORBISK_WERROR)
  add_compile_options(-Werror)
endif()

if(ORBISK_SANITIZE)
  add_compile_options(-fsanitize=${ORBISK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORBISK_SANITIZE})
  # This one check asks the kernel, through a pipe, whether an address may be read, and takes a refusal for a defect. The
  # extractor's sandbox refuses pipes, and some tests run out of descriptors.
  add_compile_options(-fno-sanitize=vptr)
endif()
if(ORBISK_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
