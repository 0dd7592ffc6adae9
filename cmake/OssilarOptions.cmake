# Language level, warnings and sanitizers, in one interface target that every room links.
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

add_library(ossilar_options INTERFACE)
target_include_directories(ossilar_options INTERFACE "${PROJECT_SOURCE_DIR}/src")
target_compile_definitions(ossilar_options INTERFACE OSSILAR_VERSION="${PROJECT_VERSION}")
target_compile_options(ossilar_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast
  -Wcast-align -Wunused -Wnull-dereference
  # Places in log records and assertions are relative to the project, the same on every machine.
  "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(ossilar_options INTERFACE -Wthread-safety)
else()
  # GCC 12 reports null dereferences and overlapping copies inside its own library headers once it has inlined them
  # (its bugs 105651 and 105329).
  target_compile_options(ossilar_options INTERFACE -Wno-null-dereference -Wno-restrict)
  # A room's sources are compiled as one file, and GCC takes any but that one for headers.
  target_compile_options(ossilar_options INTERFACE -Wno-subobject-linkage)
endif()
if(OSSILAR_WERROR)
  target_compile_options(ossilar_options INTERFACE -Werror)
endif()
if(OSSILAR_FUZZ)
  target_compile_options(ossilar_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(OSSILAR_SANITIZE)
  target_compile_options(ossilar_options INTERFACE
    -fsanitize=${OSSILAR_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(ossilar_options INTERFACE -fsanitize=${OSSILAR_SANITIZE})
endif()
