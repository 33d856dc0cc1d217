# Run with cmake -P at build time. The date is UTC and honours
# SOURCE_DATE_EPOCH (string(TIMESTAMP) reads it from the environment). The
# clean flag is 1 when the source tree is a git checkout with no changes,
# untracked files included, and 0 otherwise.
string(TIMESTAMP QVN_STAMP_DATE "%Y-%m-%dT%H:%M:%SZ" UTC)
set(QVN_STAMP_VARIANT "${VARIANT}")
set(QVN_STAMP_HOST "${HOST}")
set(QVN_STAMP_CLEAN 0)
if(GIT)
  execute_process(COMMAND ${GIT} status --porcelain
    WORKING_DIRECTORY ${SOURCE_DIR}
    RESULT_VARIABLE git_rc OUTPUT_VARIABLE git_out ERROR_QUIET)
  if(git_rc EQUAL 0 AND git_out STREQUAL "")
    set(QVN_STAMP_CLEAN 1)
  endif()
endif()
configure_file(${TEMPLATE} ${OUTPUT}.tmp @ONLY)
execute_process(COMMAND ${CMAKE_COMMAND} -E copy_if_different ${OUTPUT}.tmp ${OUTPUT})
file(REMOVE ${OUTPUT}.tmp)
