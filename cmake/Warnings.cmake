# Warnings for the project's own targets (not for GoogleTest or other imported code).
function(kestrel_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-unused-parameter
                                           $<$<COMPILE_LANGUAGE:CXX>:-Wno-language-extension-token>)
endfunction()
