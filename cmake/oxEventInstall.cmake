# What cmake --install installs: libraries, headers, CMake package, pkg-config file, Python module, gdb script,
# documents, examples and man pages.
include(CMakePackageConfigHelpers)

install(TARGETS oxEvent oxevent-alertposter oxutil EXPORT oxEventTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(NOT OXEVENT_STATIC)
  install(TARGETS oxutil-http LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
install(FILES include/oxEvent.h include/oxEvent.hpp oxutil/include/oxutil.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/oxEvent DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES tools/journal/oxevent.catalog DESTINATION lib/systemd/catalog)
install(FILES tools/python/oxevent.py DESTINATION ${CMAKE_INSTALL_DATADIR}/oxevent/python)
install(FILES tools/oxevent-gdb.py DESTINATION ${CMAKE_INSTALL_DATADIR}/oxevent)
install(FILES README.md CONTRIBUTING.md SECURITY.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} PATTERN docs/man EXCLUDE PATTERN docs/site EXCLUDE)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR})

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/oxEvent)
install(EXPORT oxEventTargets NAMESPACE oxEvent:: DESTINATION ${package_dir})
configure_package_config_file(cmake/oxEventConfig.cmake.in oxEventConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(oxEventConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/oxEventConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/oxEventConfigVersion.cmake
  DESTINATION ${package_dir})
# The file must contain the real prefix, which is known only at the installation: pkg-config leaves out the directories
# that the compiler searches anyway.
set(prefix "@prefix@")
if(OXEVENT_STATIC)
  set(static_libraries " -loxutil -lpugixml -lcurl -lcrypto -lstdc++ -pthread -ldl")
endif()
foreach(package oxEvent oxevent-alertposter)
  configure_file(cmake/${package}.pc.in ${package}.pc.in @ONLY)
  install(CODE "
    get_filename_component(prefix \"\${CMAKE_INSTALL_PREFIX}\" ABSOLUTE)
    configure_file(\"${CMAKE_CURRENT_BINARY_DIR}/${package}.pc.in\" \"${CMAKE_CURRENT_BINARY_DIR}/${package}.pc\" @ONLY)")
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
