# SPDX-License-Identifier: Apache-2.0
set(VNLOG_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vnlog)

install(TARGETS logservice vnlog_binder vnlog_logger EXPORT vnlogTargets)
install(TARGETS logserviced logset logwrite logview)
foreach(program logserviced logset logwrite logview)
  install(FILES completions/${program}.bash DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions
          RENAME ${program})
endforeach()
foreach(
  header
  base/Export.h
  base/Flag.h
  base/Mutex.h
  binder/Command.h
  binder/CommandState.h
  binder/ILogService.h
  buffer/LogBuf.h
  buffer/RingState.h
  config/Check.h
  config/ServiceState.h
  config/SettingsState.h
  platform/logger/LoggerDriver.h
  service/LogService.h
  service/WorkerState.h
  sources/AndroidState.h
  sources/FilterState.h
  sources/KernelState.h
  storage/ShellState.h
  storage/StorageState.h)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vnlog/${folder})
endforeach()
install(FILES service/vnlog.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vnlog)
if(NOT VNLOG_PLATFORM_BINDER)
  install(DIRECTORY platform/binder/include/binder
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vnlog/platform/binder/include)
  set(VNLOG_PC_BINDER_CFLAGS "-I\${includedir}/vnlog/platform/binder/include")
  set(VNLOG_PC_BINDER_LIBS "-lvnlog_binder")
else()
  set(VNLOG_PC_BINDER_LIBS "-lbinder")
endif()

install(FILES share/lnav/vnlog.json DESTINATION ${CMAKE_INSTALL_DATADIR}/vnlog/lnav)

install(EXPORT vnlogTargets NAMESPACE vnlog:: DESTINATION ${VNLOG_CMAKE_DIR})
configure_package_config_file(cmake/vnlogConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/vnlogConfig.cmake
                              INSTALL_DESTINATION ${VNLOG_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vnlogConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vnlogConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/vnlogConfigVersion.cmake
              cmake/AndroidLibraries.cmake
        DESTINATION ${VNLOG_CMAKE_DIR})

# Relative to the file itself, so that the installed tree can be moved.
file(RELATIVE_PATH VNLOG_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/PkgConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/PkgConfig.cmake @ONLY)
install(SCRIPT "${CMAKE_CURRENT_BINARY_DIR}/PkgConfig.cmake")
