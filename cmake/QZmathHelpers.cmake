# Shared build settings for QZmath's own targets. Nothing here edits global flags:
# warnings, floating-point rules and sanitizers go on our targets only.

# Strict IEEE evaluation order: results of the numeric code are defined by the
# order of operations, and FMA contraction would change them.
# g++ 12's straight-line (SLP) vectorizer drops the rounding of a double to
# float when the float is widened back right away (float f[3] = {(float)a, ...};
# double d[3] = {f[0], ...} gives d[0] == a): the float/double rules of the
# geometry would silently change, so that pass is off.
function(qz_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -ffp-contract=off -fno-tree-slp-vectorize)
  if(QZMATH_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${QZMATH_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${QZMATH_SANITIZE})
  endif()
endfunction()

# Collects the sources of a folder of the library (non-recursive, detail/ included).
function(qz_collect_sources out dir)
  file(GLOB _srcs CONFIGURE_DEPENDS "${dir}/*.cpp" "${dir}/detail/*.cpp")
  set(${out} ${_srcs} PARENT_SCOPE)
endfunction()

# One GoogleTest executable per subsystem folder under tests/.
#   qz_add_test(NAME <exe> LABEL <label> [INTERNAL] [SOURCES ...] [LIBS ...])
# Without SOURCES every *.cpp of the calling folder is used. INTERNAL links the
# library's objects instead of the shared library, for suites that must reach
# file-local classes; never both, or the library's statics would exist twice.
function(qz_add_test)
  cmake_parse_arguments(A "INTERNAL" "NAME;LABEL" "SOURCES;LIBS" ${ARGN})
  if(NOT A_SOURCES)
    file(GLOB A_SOURCES CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  endif()
  if(NOT A_SOURCES)
    return() # a suite with no tests yet
  endif()
  add_executable(${A_NAME} ${A_SOURCES})
  qz_target_defaults(${A_NAME})
  if(A_INTERNAL)
    target_link_libraries(${A_NAME} PRIVATE QZmath_objects QZmath::MKL Boost::headers)
  else()
    target_link_libraries(${A_NAME} PRIVATE QZmath)
  endif()
  target_link_libraries(${A_NAME} PRIVATE qz_test_common ${A_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${A_NAME}
    PROPERTIES LABELS "${A_LABEL}"
    DISCOVERY_TIMEOUT 120)
endfunction()
