# One ARM64X image from two builds of the same sources. This build (Arm64EC) links its target
# with the Arm64EC driver and -marm64x, together with the native Arm64 build's archives and the
# native C runtime, so that an Arm64 process and an x64 process on Windows on Arm each load
# their own view of the same file. The native view exports what the same .def file lists.
function(kestrel_link_arm64x target native_build def_file)
  # Inside the toolchain root, where the link runs: the native runtime, by full path, since the
  # driver only searches the Arm64EC one.
  set(crt /opt/mingw/aarch64-w64-mingw32/lib)
  set(builtins /usr/lib/llvm-22/lib/clang/22/lib/aarch64-w64-windows-gnu/libclang_rt.builtins.a)
  set(archives addon/libkestrel_addon.a KestrelLib/libkestrel_lib.a libinfra/win32/libkestrel_win32.a
               logging/libkestrel_logging.a libinfra/libkestrel_infra.a)
  foreach(archive ${archives})
    if(NOT EXISTS ${native_build}/${archive})
      message(FATAL_ERROR "${native_build}/${archive} is missing: build the windows-arm64 preset first")
    endif()
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${native_build}/${archive})
  endforeach()
  # Named relative to this build tree, where the link runs, since the PDB keeps the linker's
  # command line and must not name the checkout.
  file(RELATIVE_PATH native ${CMAKE_BINARY_DIR} ${native_build})
  list(TRANSFORM archives PREPEND ${native}/)
  list(POP_FRONT archives addon)
  set(system ntdll oleaut32 ole32 uuid version advapi32 shell32 user32 kernel32)
  list(TRANSFORM system REPLACE "(.+)" "${crt}/lib\\1.a")
  # The lld the toolchain chose because it gives each view its own TLS directory.
  target_link_options(${target} PRIVATE -marm64x --ld-path=/opt/mingw/bin/arm64x-ld.lld
                      "LINKER:--Xlink=-defarm64native:${def_file}"
                      ${crt}/dllcrt2.o ${crt}/crtbegin.o "LINKER:--whole-archive" ${addon} "LINKER:--no-whole-archive"
                      ${archives} ${crt}/libc++.a ${crt}/libmingw32.a ${builtins} ${crt}/libunwind.a
                      ${crt}/libmoldname.a ${crt}/libmingwex.a ${crt}/libmsvcrt.a ${system} ${crt}/crtend.o)
endfunction()
