# swu_add_test(<name> SOURCES ... [LIBS ...] [DEPENDS target...] [PORTABLE] [THREADED] [NETNS]
#               [TIMEOUT s])
#
# One GoogleTest executable per module. Labels say where a test also runs:
#   PORTABLE  touches nothing of the host simulation, so the terminal (armhf)
#             build runs it under qemu;
#   THREADED  exercises real threads, so the ThreadSanitizer build runs it.
# NETNS runs each test case in a private network namespace of its own (needs
# root), for tests that start the daemon on its fixed ports. DEPENDS names the
# programs a test runs, built before it. Tests include from tests/ (support/).
# SWU_TEST_SUBSET ("all", "threaded", "portable") selects what a build compiles.
function(swu_add_test name)
  cmake_parse_arguments(T "PORTABLE;THREADED;NETNS" "TIMEOUT" "SOURCES;LIBS;DEPENDS" ${ARGN})
  if(SWU_TEST_SUBSET STREQUAL "threaded" AND NOT T_THREADED)
    return()
  endif()
  if(SWU_TEST_SUBSET STREQUAL "portable" AND NOT T_PORTABLE)
    return()
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set(labels "")
  if(T_PORTABLE)
    list(APPEND labels portable)
  endif()
  if(T_THREADED)
    list(APPEND labels threaded)
  endif()
  add_executable(${name} ${T_SOURCES})
  if(T_NETNS)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/netns_main.cpp)
    target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock)
  else()
    target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  endif()
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  if(T_DEPENDS)
    add_dependencies(${name} ${T_DEPENDS})
  endif()
  target_compile_definitions(${name} PRIVATE SWU_BIN_DIR="${CMAKE_BINARY_DIR}/bin"
                                             SWU_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT ${T_TIMEOUT})
  if(labels)
    # Discovery splits a list-valued property, so the labels are set by a
    # script that ctest reads after the discovered tests exist.
    set(label_script ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
    file(WRITE ${label_script}
         "if(${name}_TESTS)\n"
         "  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${labels}\")\n"
         "endif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${label_script})
  endif()
  set_property(GLOBAL APPEND PROPERTY SWU_TEST_TARGETS ${name})
endfunction()

# A target that builds every test executable of this build.
function(swu_finish_test_targets)
  get_property(targets GLOBAL PROPERTY SWU_TEST_TARGETS)
  add_custom_target(swu_tests)
  if(targets)
    add_dependencies(swu_tests ${targets})
  endif()
endfunction()
