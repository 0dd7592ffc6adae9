# A room is one library target with a list of sources of its own. Its tests are one binary that links that room
# alone, so an arrow the wrong way fails to link. A source or test file that is in no list fails the configuration.

# ossilar_require_listed(KIND [FOLDER...]): also of the folders below that have no list of their own.
function(ossilar_require_listed kind)
  list(TRANSFORM ARGN APPEND "/*.cc" OUTPUT_VARIABLE below)
  file(GLOB present RELATIVE "${CMAKE_CURRENT_SOURCE_DIR}" CONFIGURE_DEPENDS "*.cc" ${below})
  foreach(file IN LISTS present)
    get_property(listed DIRECTORY PROPERTY OSSILAR_LISTED)
    if(NOT file IN_LIST listed)
      message(FATAL_ERROR "${CMAKE_CURRENT_SOURCE_DIR}/${file} is in no ${kind} target; list it in CMakeLists.txt")
    endif()
  endforeach()
endfunction()

# ossilar_room(NAME SOURCES ... [DEPENDS ...]): library target ossilar_NAME.
function(ossilar_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(ossilar_${name} STATIC ${ROOM_SOURCES})
  target_link_libraries(ossilar_${name} PUBLIC ossilar_options ${ROOM_DEPENDS})
  set_property(DIRECTORY APPEND PROPERTY OSSILAR_LISTED ${ROOM_SOURCES})
endfunction()

# ossilar_test(NAME [WHOLE] SOURCES ... DEPENDS ...): test binary NAME_test, its cases registered with ctest; with
# WHOLE as one, for a binary whose start takes long.
function(ossilar_test name)
  cmake_parse_arguments(TEST "WHOLE" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name}_test ${TEST_SOURCES})
  target_link_libraries(${name}_test PRIVATE ${TEST_DEPENDS} ossilar_options GTest::gmock GTest::gtest_main)
  target_include_directories(${name}_test PRIVATE "${PROJECT_SOURCE_DIR}/tests")
  target_compile_definitions(${name}_test PRIVATE OSSILAR_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")
  if(TEST_WHOLE)
    add_test(NAME ${name} COMMAND ${name}_test)
    set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  else()
    gtest_discover_tests(${name}_test TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
  endif()
  set_property(DIRECTORY APPEND PROPERTY OSSILAR_LISTED ${TEST_SOURCES})
endfunction()
