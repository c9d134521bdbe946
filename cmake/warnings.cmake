function(qnbrl_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic $<$<BOOL:${QNBRL_WARNINGS_AS_ERRORS}>:-Werror>)
endfunction()
