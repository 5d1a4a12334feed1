# Small helpers so that every folder declares its target the same way.

# tarn_library(NAME SOURCES... [DEPS ...]): one static library per src/ folder.
function(tarn_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${arg_DEPS})
endfunction()

# tarn_component(NAME SOURCES... [DEPS ...]): a plug-in loaded with dlopen, named NAME.so in dist/.
function(tarn_component name)
  cmake_parse_arguments(arg "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} MODULE ${arg_SOURCES})
  set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".so"
                        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE ${arg_DEPS})
  target_link_options(${name} PRIVATE -Wl,--no-undefined)
endfunction()

# tarn_test(NAME SOURCES... [DEPS ...] [LABELS ...] [PROPERTIES ...] [OWN_MAIN] [ONE_PROCESS]
#           [NEEDS_ROOT]):
# one GoogleTest executable per folder. OWN_MAIN when a source brings main() (e.g. to make a
# QApplication). ONE_PROCESS registers the whole executable as one test, so that its cases can
# share what is costly to start (a gateway, an office) instead of running one process each.
# When ctest runs as root, the test runs as the unprivileged user tarn-test (the product never
# runs as root, and root passes over permission faults); NEEDS_ROOT keeps root, and the caller
# says why.
function(tarn_test name)
  cmake_parse_arguments(arg "OWN_MAIN;ONE_PROCESS;NEEDS_ROOT" "" "SOURCES;DEPS;LABELS;PROPERTIES"
                        ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests
    CROSSCOMPILING_EMULATOR ${CMAKE_SOURCE_DIR}/tests/support/as_test_user.sh)
  target_link_libraries(${name} PRIVATE tarn_test_support ${arg_DEPS} GTest::gmock GTest::gtest)
  if(NOT arg_OWN_MAIN)
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  endif()
  set(environment "QT_QPA_PLATFORM=offscreen")
  if(arg_NEEDS_ROOT)
    list(APPEND environment "TARN_TEST_AS_ROOT=1")
  endif()
  set(properties ENVIRONMENT "${environment}" FIXTURES_REQUIRED test_user ${arg_PROPERTIES})
  if(arg_LABELS)
    list(APPEND properties LABELS "${arg_LABELS}")
  endif()
  if(arg_ONE_PROCESS)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES ${properties})
    return()
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()
