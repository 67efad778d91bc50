# The Wine prefix lives in the build tree and is made here, once, at configure time: making it
# lazily inside the first test discovery takes longer than discovery may. Windows x64 programs
# run under this machine's Wine; Arm64 and Arm64EC ones under Wine arm64 in its own root
# (scripts/arm64-wine, or scripts/arm64ec-wine for Arm64EC) through qemu, with a copy of that
# root's booted prefix.
set(KESTREL_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
set(KESTREL_WINE_RUN ${CMAKE_BINARY_DIR}/wine-run)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "ARM64")
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/${KESTREL_WINE_SETUP} --root OUTPUT_VARIABLE KESTREL_WINE_ROOT
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(KESTREL_WINE_DLLS ${KESTREL_WINE_ROOT}/usr/lib/aarch64-linux-gnu/wine/aarch64-windows)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run-arm64.in ${KESTREL_WINE_RUN} @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
  if(NOT EXISTS ${KESTREL_WINEPREFIX}/system.reg)
    message(STATUS "Copying the booted Wine arm64 prefix to ${KESTREL_WINEPREFIX}")
    execute_process(COMMAND cp -a ${KESTREL_WINE_ROOT}/opt/wineprefix ${KESTREL_WINEPREFIX} COMMAND_ERROR_IS_FATAL ANY)
  endif()
else()
  set(KESTREL_WINE_DLLS /usr/lib/x86_64-linux-gnu/wine/x86_64-windows)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run.in ${KESTREL_WINE_RUN} @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
  # wineboot has failed once in a fresh CI run and succeeded when run again: it gets a second try
  # from scratch, and the error shows its output.
  set(wineboot_log ${CMAKE_BINARY_DIR}/wineboot.log)
  foreach(attempt 1 2)
    if(EXISTS ${KESTREL_WINEPREFIX}/system.reg)
      break()
    endif()
    message(STATUS "Creating Wine prefix ${KESTREL_WINEPREFIX} (attempt ${attempt})")
    file(REMOVE_RECURSE ${KESTREL_WINEPREFIX})
    execute_process(
      COMMAND ${CMAKE_COMMAND} -E env WINEPREFIX=${KESTREL_WINEPREFIX} WINEARCH=win64 WINEDEBUG=-all
              WINEDLLOVERRIDES=mscoree,mshtml= /usr/lib/wine/wine64 wineboot -i
      RESULT_VARIABLE wineboot_result OUTPUT_FILE ${wineboot_log} ERROR_FILE ${wineboot_log})
    execute_process(COMMAND ${CMAKE_COMMAND} -E env WINEPREFIX=${KESTREL_WINEPREFIX}
                            /usr/lib/wine/wineserver -w ERROR_QUIET)
    if(NOT wineboot_result EQUAL 0)
      file(REMOVE ${KESTREL_WINEPREFIX}/system.reg)
    endif()
  endforeach()
  if(NOT EXISTS ${KESTREL_WINEPREFIX}/system.reg)
    file(READ ${wineboot_log} wineboot_output)
    message(FATAL_ERROR "wineboot could not create ${KESTREL_WINEPREFIX} (exit ${wineboot_result}):\n${wineboot_output}")
  endif()
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${KESTREL_WINE_RUN})
