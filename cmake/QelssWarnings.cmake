# Warnings for the project's own targets (not for third-party code).
function(qelss_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
                                           -Wnon-virtual-dtor -Wno-unused-parameter)
endfunction()
