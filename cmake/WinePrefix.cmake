# The Wine prefix lives in the build tree and is created here, once, at configure time: creating
# it lazily inside the first test discovery takes longer than discovery may.
set(KESTREL_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
set(KESTREL_WINE_RUN ${CMAKE_BINARY_DIR}/wine-run)
configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run.in ${KESTREL_WINE_RUN} @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KESTREL_WINE_RUN})

if(NOT EXISTS ${KESTREL_WINEPREFIX}/system.reg)
  message(STATUS "Creating Wine prefix ${KESTREL_WINEPREFIX}")
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env WINEPREFIX=${KESTREL_WINEPREFIX} WINEARCH=win64 WINEDEBUG=-all
            WINEDLLOVERRIDES=mscoree,mshtml= /usr/lib/wine/wine64 wineboot -i
    RESULT_VARIABLE wineboot_result OUTPUT_QUIET ERROR_QUIET)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env WINEPREFIX=${KESTREL_WINEPREFIX}
                          /usr/lib/wine/wineserver -w ERROR_QUIET)
  if(NOT wineboot_result EQUAL 0 OR NOT EXISTS ${KESTREL_WINEPREFIX}/system.reg)
    message(FATAL_ERROR "wineboot could not create ${KESTREL_WINEPREFIX}")
  endif()
endif()
