# What ships for Windows carries no DWARF: each image keeps only its debug directory, which names
# the PDB the link wrote beside it (cmake/WindowsDebugInfo.cmake). lld keeps the DWARF of the
# mingw-w64 runtime's objects when it writes a PDB, so it is stripped after the link.
function(kestrel_ship target)
  if(WIN32)
    add_custom_command(TARGET ${target} POST_BUILD
                       COMMAND ${KESTREL_LLVM_TOOLS}llvm-strip --strip-debug $<TARGET_FILE:${target}>
                       VERBATIM)
  endif()
endfunction()
