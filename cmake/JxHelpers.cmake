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

# One GoogleTest executable; each test runs in its own process under CTest because the
# library keeps process-wide state (settings are read once per process).
function(jx_add_gtest name label)
  if(NOT ARGN)
    return()
  endif()
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE jxcache_testsupport GTest::gtest GTest::gmock jx_warnings)
  target_compile_options(${name} PRIVATE ${JX_LINE_TABLES_ONLY})
  gtest_discover_tests(${name} PROPERTIES LABELS "${label}" TIMEOUT 120 DISCOVERY_TIMEOUT 60)
endfunction()
