# Collects the library sources of a folder: every .cpp that is not a test.
function(jx_folder_sources out dir)
  file(GLOB all CONFIGURE_DEPENDS ${dir}/*.cpp)
  list(FILTER all EXCLUDE REGEX "_test\\.cpp$")
  set(${out} ${all} PARENT_SCOPE)
endfunction()

# Collects the tests of a folder. Unit tests end in _test.cpp; tests that exercise
# several threads end in _concurrency_test.cpp and carry the "concurrency" label so
# that the ThreadSanitizer build can run just them.
function(jx_folder_tests unit_out conc_out dir)
  file(GLOB unit CONFIGURE_DEPENDS ${dir}/*_test.cpp)
  file(GLOB conc CONFIGURE_DEPENDS ${dir}/*_concurrency_test.cpp)
  if(conc)
    list(REMOVE_ITEM unit ${conc})
  endif()
  set(${unit_out} ${unit} PARENT_SCOPE)
  set(${conc_out} ${conc} PARENT_SCOPE)
endfunction()

# Debug information for our own programs around the library (tests, stress programs, the tool):
# line tables only. They keep backtraces, sanitizer reports and profiles readable; full debug
# information for their template-heavy test and JSON code made up about a third of their compile
# time, in each of the builds CI makes. The library itself keeps full debug information.
set(JX_LINE_TABLES_ONLY $<$<CONFIG:RelWithDebInfo,Debug>:-g1>)

# The test files themselves (not the library they test, nor the stress programs, whose loops
# are what they measure) are optimized less: at -O1, GCC compiled a test file in about 30% less
# time than at -O2, and the tests ran no slower for it.
set(JX_TEST_CODE_OPTIONS ${JX_LINE_TABLES_ONLY} $<$<CONFIG:RelWithDebInfo,Release>:-O1>)

# What every test program compiles with: the precompiled header below is only valid for
# programs compiled exactly alike.
function(jx_test_program_settings name)
  target_link_libraries(${name} PRIVATE jxcache_testsupport GTest::gtest GTest::gmock jx_warnings)
  target_compile_options(${name} PRIVATE ${JX_TEST_CODE_OPTIONS})
endfunction()

# One GoogleTest executable; each test runs in its own process under CTest because the
# library keeps process-wide state (settings are read once per process).
# GoogleTest's headers took about a third of a test file's compile time, in each of the builds
# CI makes: the test programs share one precompiled copy of them, made once per build by a small
# program of its own (so that a build of some tests only does not compile the others).
function(jx_add_gtest name label)
  if(NOT ARGN)
    return()
  endif()
  if(NOT TARGET jx_test_pch)
    add_executable(jx_test_pch EXCLUDE_FROM_ALL ${PROJECT_SOURCE_DIR}/testing/test_main.cpp)
    jx_test_program_settings(jx_test_pch)
    target_precompile_headers(jx_test_pch PRIVATE <gtest/gtest.h>)
  endif()
  add_executable(${name} ${ARGN})
  jx_test_program_settings(${name})
  target_precompile_headers(${name} REUSE_FROM jx_test_pch)
  gtest_discover_tests(${name} PROPERTIES LABELS "${label}" TIMEOUT 120 DISCOVERY_TIMEOUT 60)
  jx_add_one_process_test(${name})
endfunction()

# The whole program in one process, twice, in shuffled orders (fixed seeds, so that a failure
# replays): a test that leans on another's leftovers, or on a fresh process, fails here. Label
# one_process, which `make test` runs and the sanitizer runs leave out.
function(jx_add_one_process_test name)
  add_test(NAME ${name}.one_process
    COMMAND ${name} --gtest_shuffle --gtest_random_seed=2026 --gtest_repeat=2 --gtest_brief=1)
  set_tests_properties(${name}.one_process PROPERTIES LABELS one_process TIMEOUT 600)
endfunction()
