# SPDX-License-Identifier: Apache-2.0
# cmake --install: the library with the simulation it runs on on a host, the
# log checker, the record's header with the declarations it includes, a CMake
# package (PostProcInfo, with the component sim) and pkg-config files
# (postprocinfo, postprocinfo-sim).
include(CMakePackageConfigHelpers)
set(POSTPROC_INCLUDE ${CMAKE_INSTALL_INCLUDEDIR}/postprocinfo)
set(POSTPROC_CMAKE ${CMAKE_INSTALL_LIBDIR}/cmake/PostProcInfo)

install(TARGETS postprocinfo postproc_headers postproc_sim sim_ledger sim_camera_metadata sim_chi
    sim_kycam sim_properties sim_logcat
  EXPORT PostProcInfoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${POSTPROC_INCLUDE})
# The stand-in IQ buffer manager stays out of the consumer's library
# directory, where the library's own dlopen would find it in place of a real
# manager: a program that links PostProcInfo::sim loads it from here, and the
# library's dlopen of that name then takes the one loaded.
set(POSTPROC_SIM_MANAGER_DIR ${CMAKE_INSTALL_LIBDIR}/postprocinfo-sim)
set_target_properties(sim_iqbm PROPERTIES INSTALL_RPATH "$ORIGIN/..")
install(TARGETS sim_iqbm EXPORT PostProcInfoTargets
  LIBRARY DESTINATION ${POSTPROC_SIM_MANAGER_DIR})
install(TARGETS postproc-logcheck RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${POSTPROC_DIR}/QcomPostProcInfo.h DESTINATION ${POSTPROC_INCLUDE})
install(DIRECTORY framework/ platform/ DESTINATION ${POSTPROC_INCLUDE}
  FILES_MATCHING PATTERN "*.h" PATTERN host EXCLUDE)
install(DIRECTORY sim/include/sim DESTINATION ${POSTPROC_INCLUDE} PATTERN probes.h EXCLUDE)

install(EXPORT PostProcInfoTargets NAMESPACE PostProcInfo:: DESTINATION ${POSTPROC_CMAKE})
configure_package_config_file(cmake/PostProcInfoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/PostProcInfoConfig.cmake INSTALL_DESTINATION ${POSTPROC_CMAKE})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/PostProcInfoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/PostProcInfoConfig.cmake
  ${PROJECT_BINARY_DIR}/PostProcInfoConfigVersion.cmake DESTINATION ${POSTPROC_CMAKE})

get_filename_component(ANDROID_LOG_DIR ${ANDROID_LOG_LIBRARY} DIRECTORY)
foreach(pc postprocinfo postprocinfo-sim)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
