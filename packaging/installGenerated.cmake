# Run at install time (install(CODE) in packaging.cmake): the manual pages
# and the pkg-config file name installed paths, and only now is the prefix
# known (cmake --install --prefix, cpack's /usr). Each template's @ZQIM_...@
# names are replaced by the installed paths, the pages compressed as Debian
# asks (gzip -9n) where gzip is found.
#
# Set by the caller: ZQIM_SOURCE_DIR, ZQIM_BINARY_DIR, ZQIM_VERSION, and the
# GNUInstallDirs values ZQIM_BINDIR, ZQIM_LIBDIR, ZQIM_INCLUDEDIR,
# ZQIM_DOCDIR, ZQIM_MANDIR.

foreach(dir BINDIR LIBDIR INCLUDEDIR DOCDIR MANDIR)
  if(IS_ABSOLUTE "${ZQIM_${dir}}")
    set(ZQIM_FULL_${dir} "${ZQIM_${dir}}")
  else()
    set(ZQIM_FULL_${dir} "${CMAKE_INSTALL_PREFIX}/${ZQIM_${dir}}")
  endif()
endforeach()
set(ZQIM_PREFIX "${CMAKE_INSTALL_PREFIX}")

set(generated "${ZQIM_BINARY_DIR}/installed")
file(MAKE_DIRECTORY "${generated}")
find_program(ZQIM_GZIP gzip)
foreach(page ZQIMHelper.1 zqim.1 zqim-commands.5)
  configure_file("${ZQIM_SOURCE_DIR}/packaging/${page}" "${generated}/${page}" @ONLY)
  string(REGEX REPLACE ".*\\." "" section "${page}")
  set(installed "${generated}/${page}")
  if(ZQIM_GZIP)
    execute_process(COMMAND "${ZQIM_GZIP}" -9nc "${generated}/${page}"
                    OUTPUT_FILE "${generated}/${page}.gz" RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "gzip ${page}: ${failed}")
    endif()
    set(installed "${generated}/${page}.gz")
  endif()
  file(INSTALL "${installed}" DESTINATION "${ZQIM_FULL_MANDIR}/man${section}")
endforeach()

configure_file("${ZQIM_SOURCE_DIR}/packaging/zqim-client.pc.in" "${generated}/zqim-client.pc"
               @ONLY)
file(INSTALL "${generated}/zqim-client.pc" DESTINATION "${ZQIM_FULL_LIBDIR}/pkgconfig")
