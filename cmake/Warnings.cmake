# Warnings for the project's own targets (not for GoogleTest or other imported code).
include(CheckCXXCompilerFlag)
# Newer clang counts designated initialisers that leave members at their defaults, which the
# tests' builders rely on.
check_cxx_compiler_flag(-Wno-missing-designated-field-initializers KESTREL_HAS_DESIGNATED_WARNING)
function(kestrel_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-unused-parameter
                                           $<$<COMPILE_LANGUAGE:CXX>:-Wno-language-extension-token>)
  if(KESTREL_HAS_DESIGNATED_WARNING)
    target_compile_options(${target} PRIVATE -Wno-missing-designated-field-initializers)
  endif()
endfunction()
