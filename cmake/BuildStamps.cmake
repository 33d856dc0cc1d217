# Fills the four build stamps that the library carries in its constant data.
# The date is UTC and honours SOURCE_DATE_EPOCH (string(TIMESTAMP) reads it),
# so reproducible builds get a fixed date. The clean flag is 1 when the
# source tree is a git checkout without uncommitted changes, else 0.
string(TIMESTAMP QVN_STAMP_DATE "%Y-%m-%dT%H:%M:%SZ" UTC)
set(QVN_STAMP_VARIANT "${QVN_BUILD_VARIANT}")
set(QVN_STAMP_CLEAN 0)
find_package(Git QUIET)
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} status --porcelain --untracked-files=no
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    RESULT_VARIABLE qvn_git_rc OUTPUT_VARIABLE qvn_git_out ERROR_QUIET)
  if(qvn_git_rc EQUAL 0 AND qvn_git_out STREQUAL "")
    set(QVN_STAMP_CLEAN 1)
  endif()
endif()
set(QVN_STAMP_HOST "${CMAKE_HOST_SYSTEM_NAME} ${CMAKE_HOST_SYSTEM_VERSION} ${CMAKE_HOST_SYSTEM_PROCESSOR}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/build_stamps.cpp.in
  ${PROJECT_BINARY_DIR}/generated/build_stamps.cpp @ONLY)
set(QVN_GENERATED_SOURCES ${PROJECT_BINARY_DIR}/generated/build_stamps.cpp)
