# What `cmake --install` puts where: both libraries, dmq with its completion, the public headers with the generated ones, the
# .proto files, manual pages, and how pkg-config and CMake find the libraries.
# A umask of the machine that builds is no business of those who use what is installed.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

if(DM_PLATFORM_LIBRARY)
  set(not_bundled PATTERN tq_platform_bundled.h EXCLUDE)
else()
  set(DM_BUNDLED tq_platform)
endif()
set_target_properties(tq_dm_cache ${DM_BUNDLED} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS tq_dm_cache ${DM_BUNDLED} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(TARGET dmq)
  set_target_properties(dmq PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS dmq RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/man/dmq.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${PROJECT_SOURCE_DIR}/dmq/completion/dmq.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME dmq)
  install(FILES ${PROJECT_SOURCE_DIR}/dmq/completion/_dmq DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endif()

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ ${PROJECT_BINARY_DIR}/generated/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp" ${not_bundled})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/schema/
  DESTINATION ${CMAKE_INSTALL_DATADIR}/tq_dm_cache FILES_MATCHING PATTERN "*.proto")
install(FILES ${PROJECT_SOURCE_DIR}/man/tq_dm_cache.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tq_dm_cache)
# Relative to where the file is found, so that --prefix and DESTDIR may move the whole.
file(RELATIVE_PATH DM_PC_TO_INCLUDE /${CMAKE_INSTALL_LIBDIR}/pkgconfig /${CMAKE_INSTALL_INCLUDEDIR})
if(DM_BUNDLED)
  set(DM_PC_PLATFORM -l${DM_BUNDLED})
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/tq_dm_cache.pc.in tq_dm_cache.pc @ONLY)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tq_dm_cacheConfig.cmake.in tq_dm_cacheConfig.cmake
  INSTALL_DESTINATION ${package_dir} PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(tq_dm_cacheConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tq_dm_cache.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/tq_dm_cacheConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/tq_dm_cacheConfigVersion.cmake
  DESTINATION ${package_dir})
