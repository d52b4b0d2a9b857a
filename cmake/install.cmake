# Installed package for services that embed the catalog: the kavrel tool, the five
# static libraries, their public headers below include/kavrel (folder names
# kept, so include lines read the same inside and outside the tree), the man page, and a
# CMake package giving kavrel::dct, kavrel::sqlitedb, kavrel::catalog_shadow,
# kavrel::appdb and kavrel::offsite.
include(CMakePackageConfigHelpers)

set(KAVREL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kavrel)

set_target_properties(kavrel_dct PROPERTIES EXPORT_NAME dct)
set_target_properties(kavrel_sqlitedb PROPERTIES EXPORT_NAME sqlitedb)
set_target_properties(kavrel_catalog_shadow PROPERTIES EXPORT_NAME catalog_shadow)
set_target_properties(kavrel_appdb PROPERTIES EXPORT_NAME appdb)
set_target_properties(kavrel_offsite PROPERTIES EXPORT_NAME offsite)

install(TARGETS kavrel_dct kavrel_sqlitedb kavrel_catalog_shadow kavrel_appdb kavrel_offsite
        EXPORT kavrelTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

if(TARGET kavrel)
  install(TARGETS kavrel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# kavrel-find and its man page.
if(TARGET kavrel-find)
  install(TARGETS kavrel-find RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/tool/kavrel-find.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

# kavrel-shadow, its man page and the systemd units of its nightly run and of
# the weekly check of its off-site copy (installed, not enabled). The services
# name the installed binary, so they are written at install time, like
# kavrel.pc below.
if(TARGET kavrel-shadow)
  install(TARGETS kavrel-shadow RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/tool/kavrel-shadow.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
  # The alerting rules for its metrics, for Prometheus's rule_files.
  install(FILES ${PROJECT_SOURCE_DIR}/tool/kavrel.rules.yml DESTINATION ${CMAKE_INSTALL_DATADIR}/kavrel)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}")
    set(_shadow_bin "${CMAKE_INSTALL_BINDIR}/kavrel-shadow")
  else()
    set(_shadow_bin "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/kavrel-shadow")
  endif()
  foreach(_unit kavrel-shadow kavrel-shadow-offsite-check)
    install(CODE "
      set(KAVREL_SHADOW_PATH \"${_shadow_bin}\")
      configure_file(\"${PROJECT_SOURCE_DIR}/tool/${_unit}.service.in\"
                     \"${PROJECT_BINARY_DIR}/${_unit}.service\" @ONLY)
    ")
    install(FILES ${PROJECT_BINARY_DIR}/${_unit}.service ${PROJECT_SOURCE_DIR}/tool/${_unit}.timer
            DESTINATION lib/systemd/system)
  endforeach()
endif()

# The headers a service needs to embed the catalog, and nothing else: the
# catalog interface and its factory, the item, the query texts and the
# record sink, the shadow context with its proxies, the directory lock, one
# database's export, the status codes, the log, the times of a command line
# and the environment a service runs with; the pool's configuration, the
# listing and the search of the catalogs; and the off-site and export engine
# (offsite/, every header but the *_internal.h ones). These are also all the
# commands include. The other headers are the libraries' own; they may change
# without notice, so they are not installed. tests/consumer pins this list and
# compiles every installed header on its own.
file(GLOB _offsite_headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/offsite/*.h)
list(FILTER _offsite_headers EXCLUDE REGEX "_internal\\.h$")
set(KAVREL_PUBLIC_HEADERS
  dct/status.h
  dct/log.h
  dct/environment.h
  dct/time_text.h
  catalog_shadow/DirectoryLock.h
  catalog_shadow/CatalogShadowCtx.h
  catalog_shadow/ConfigFileShadowProxy.h
  catalog_shadow/ShadowExport.h
  appdb/app_catalog_item.h
  appdb/app_query.h
  appdb/catalog_item_sink.h
  appdb/catalog_application.h
  appdb/catalog_fields.h
  appdb/catalog_filter.h
  appdb/catalog_find.h
  appdb/catalog_listing.h
  appdb/kavrel_config.h
  ${_offsite_headers})
foreach(_h ${KAVREL_PUBLIC_HEADERS})
  get_filename_component(_dir ${_h} DIRECTORY)
  if(EXISTS ${PROJECT_SOURCE_DIR}/include/${_h})
    set(_src ${PROJECT_SOURCE_DIR}/include/${_h})
  else()
    set(_src ${PROJECT_SOURCE_DIR}/${_h})
  endif()
  install(FILES ${_src} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kavrel/${_dir})
endforeach()

if(EXISTS ${PROJECT_SOURCE_DIR}/tool/kavrel.1)
  install(FILES ${PROJECT_SOURCE_DIR}/tool/kavrel.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

install(EXPORT kavrelTargets
        NAMESPACE kavrel::
        DESTINATION ${KAVREL_INSTALL_CMAKEDIR})

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/kavrelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kavrelConfig.cmake
  INSTALL_DESTINATION ${KAVREL_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/kavrelConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kavrelConfig.cmake ${PROJECT_BINARY_DIR}/kavrelConfigVersion.cmake
        DESTINATION ${KAVREL_INSTALL_CMAKEDIR})

# pkg-config file kavrel.pc, for builds that do not use CMake. It is written at
# install time so that its prefix is the one installed to, also when
# `cmake --install --prefix` differs from the configured prefix.
foreach(_kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_kind}}")
    set(KAVREL_PC_${_kind} "${CMAKE_INSTALL_${_kind}}")
  else()
    set(KAVREL_PC_${_kind} "\${prefix}/${CMAKE_INSTALL_${_kind}}")
  endif()
endforeach()
install(CODE "
  set(KAVREL_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(KAVREL_PC_LIBDIR [==[${KAVREL_PC_LIBDIR}]==])
  set(KAVREL_PC_INCLUDEDIR [==[${KAVREL_PC_INCLUDEDIR}]==])
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/kavrel.pc.in\" \"${PROJECT_BINARY_DIR}/kavrel.pc\" @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/kavrel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
