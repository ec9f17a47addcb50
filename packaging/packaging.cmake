# Installing the helper, the client library (with a CMake package and a
# pkg-config file), their documents, and the Debian package made from the
# same installation (cpack -G DEB).

include(CMakePackageConfigHelpers)

install(TARGETS ZQIMHelper zqim zqim_client EXPORT ZQIMHelperTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# find_package(ZQIMHelper) from another project: imported targets under the
# ZQIMHelper:: namespace.
set(ZQIM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZQIMHelper)
install(EXPORT ZQIMHelperTargets NAMESPACE ZQIMHelper:: DESTINATION ${ZQIM_CMAKE_DIR})
configure_package_config_file(packaging/ZQIMHelperConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZQIMHelperConfig.cmake INSTALL_DESTINATION ${ZQIM_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZQIMHelperConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZQIMHelperConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/ZQIMHelperConfigVersion.cmake
        DESTINATION ${ZQIM_CMAKE_DIR})

# Documents: the README, the example command files, and what Debian asks of
# every package (a copyright file, a compressed changelog and manual page).
install(FILES README.md packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
# Not a package of the distribution: there is no bug of its to close.
if(NOT APPLE)
  install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
          RENAME zqimhelper)
endif()
find_program(ZQIM_GZIP gzip)
if(ZQIM_GZIP)
  add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
    COMMAND ${ZQIM_GZIP} -9nc ${CMAKE_CURRENT_SOURCE_DIR}/packaging/changelog.Debian
            > ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
    DEPENDS packaging/changelog.Debian VERBATIM)
  add_custom_target(zqim_compressed_docs ALL
    DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

# The manual pages (ZQIMHelper(1), zqim(1), zqim-commands(5)) and the
# client library's pkg-config file name the installed paths: they are made
# when installing, for the prefix installed to.
install(CODE "
  set(ZQIM_SOURCE_DIR \"${CMAKE_CURRENT_SOURCE_DIR}\")
  set(ZQIM_BINARY_DIR \"${CMAKE_CURRENT_BINARY_DIR}\")
  set(ZQIM_VERSION \"${PROJECT_VERSION}\")
  set(ZQIM_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
  set(ZQIM_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(ZQIM_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(ZQIM_DOCDIR \"${CMAKE_INSTALL_DOCDIR}\")
  set(ZQIM_MANDIR \"${CMAKE_INSTALL_MANDIR}\")
  include(\"${CMAKE_CURRENT_SOURCE_DIR}/packaging/installGenerated.cmake\")")

set(CPACK_PACKAGE_NAME zqimhelper)
set(CPACK_PACKAGE_VENDOR "ZQIMHelper developers")
set(CPACK_PACKAGE_CONTACT "ZQIMHelper developers <zqimhelper@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
  "An installer front-end starts the helper with administrator rights and\n"
  "drives it through command files in a shared directory: it installs files\n"
  "under an install root, deletes files and folder trees, repairs ownership,\n"
  "runs shell commands and writes user preferences, and answers every\n"
  "command file with a finished file, an error file and a log.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://example.org/zqimhelper")
include(CPack)
