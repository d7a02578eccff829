# tolvanger_test(name SOURCES ... LIBS ...): one GoogleTest binary, registered
# with CTest as one test so a sanitizer run stays quick.
function(tolvanger_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    TOLVANGER_VECTORS_DIR="${PROJECT_SOURCE_DIR}/../shared/vectors"
    TOLVANGER_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 600)
endfunction()
