# What an installed kvl consists of: the library, its headers, the CMake package, kvl.pc, the
# command, its manual and completions. `cpack` makes a Debian package of the same.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kvl)
install(TARGETS kvl EXPORT kvlTargets)
install(EXPORT kvlTargets NAMESPACE kvl:: DESTINATION ${package_dir})
configure_package_config_file(cmake/kvlConfig.cmake.in kvlConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(kvlConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kvlConfig.cmake ${PROJECT_BINARY_DIR}/kvlConfigVersion.cmake
        DESTINATION ${package_dir})

set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH KVL_PREFIX_FROM_PC /p/${pkgconfig_dir} /p)
string(REGEX REPLACE "/$" "" KVL_PREFIX_FROM_PC ${KVL_PREFIX_FROM_PC})
configure_file(cmake/kvl.pc.in kvl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kvl.pc DESTINATION ${pkgconfig_dir})

install(CODE "
  set(KVL_SOURCE \"${PROJECT_SOURCE_DIR}/src\")
  string(RANDOM LENGTH 12 own)  # two installations may be under way at once
  set(KVL_STAGING \"${PROJECT_BINARY_DIR}/public_headers-\${own}\")
  set(KVL_INCLUDE_DIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}\")")
install(SCRIPT cmake/install_headers.cmake)

# The command finds its library beside itself, wherever the tree lies.
file(RELATIVE_PATH lib_from_bin /p/${CMAKE_INSTALL_BINDIR} /p/${CMAKE_INSTALL_LIBDIR})
string(REGEX REPLACE "/$" "" lib_from_bin ${lib_from_bin})
set_target_properties(kvl_command PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_bin}")
install(TARGETS kvl_command)

if(TARGET kvl_reference)
  set(reference ${PROJECT_BINARY_DIR}/reference)
  install(DIRECTORY ${reference}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(DIRECTORY ${reference}/bash/
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(DIRECTORY ${reference}/zsh/ DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kvl)
set(CPACK_PACKAGE_CONTACT "The kvl authors <kvl@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION comm)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
include(CPack)
