# The four build stamps the shared library carries in its constant data.
# They are written at build time (every build), not at configure time, so
# the date and the clean flag describe the build that made the library.
if(NOT QVN_BUILD_VARIANT MATCHES "^[A-Za-z0-9_.-]+$")
  message(FATAL_ERROR "QVN_BUILD_VARIANT must match [A-Za-z0-9_.-]+ (got '${QVN_BUILD_VARIANT}')")
endif()
set(QVN_STAMPS_SOURCE ${PROJECT_BINARY_DIR}/generated/build_stamps.cpp)
find_package(Git QUIET)
add_custom_target(qvn_build_stamps
  COMMAND ${CMAKE_COMMAND}
    -DSOURCE_DIR=${PROJECT_SOURCE_DIR}
    -DOUTPUT=${QVN_STAMPS_SOURCE}
    -DTEMPLATE=${PROJECT_SOURCE_DIR}/cmake/build_stamps.cpp.in
    -DVARIANT=${QVN_BUILD_VARIANT}
    -DGIT=${GIT_EXECUTABLE}
    "-DHOST=${CMAKE_HOST_SYSTEM_NAME} ${CMAKE_HOST_SYSTEM_VERSION} ${CMAKE_HOST_SYSTEM_PROCESSOR}"
    -P ${PROJECT_SOURCE_DIR}/cmake/WriteStamps.cmake
  BYPRODUCTS ${QVN_STAMPS_SOURCE}
  COMMENT "Writing build stamps"
  VERBATIM)
