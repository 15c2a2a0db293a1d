# Install rules, all in one place: the library with its public headers, the
# programs, a CMake package (find_package(velka) gives velka::velka) and
# pkg-config files (velka.pc); with VELKA_PLATFORM_STANDINS also the stand-in
# engines with their headers, targets (velka::mtkpb, velka::bctidta,
# velka::ems) and pkg-config files (mtkpb.pc, bctidta.pc, ems.pc); a build for
# the box installs none of them, as the box has its own. Both packages find
# their prefix from where they are installed, so `cmake --install build
# --prefix DIR` works for any DIR.

include(CMakePackageConfigHelpers)

set(VELKA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/velka)
set(VELKA_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The library finds the platform libraries next to itself; the programs find
# the libraries in the lib folder beside their bin folder.
set_target_properties(velka PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(velka-play velka-cat PROPERTIES
  INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

set(VELKA_INSTALLED_LIBRARIES velka)
if(VELKA_PLATFORM_STANDINS)
  list(APPEND VELKA_INSTALLED_LIBRARIES mtkpb bctidta ems)
endif()
install(TARGETS ${VELKA_INSTALLED_LIBRARIES} EXPORT velkaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS velka-play velka-cat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/velka
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Each stand-in's headers in a folder of its own, as the box's SDK has them:
# include them by file name with that folder on the include path.
if(VELKA_PLATFORM_STANDINS)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/mtkpb/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mtkpb)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/dta/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/bctidta)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/pps/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ems)
endif()

install(EXPORT velkaTargets NAMESPACE velka:: DESTINATION ${VELKA_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/velkaConfig.cmake.in
  ${PROJECT_BINARY_DIR}/velkaConfig.cmake
  INSTALL_DESTINATION ${VELKA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velkaConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/velkaConfig.cmake ${PROJECT_BINARY_DIR}/velkaConfigVersion.cmake
  DESTINATION ${VELKA_CMAKE_DIR})

# pkg-config: the prefix is taken relative to the .pc file's own folder.
file(RELATIVE_PATH VELKA_PC_TO_PREFIX
  ${CMAKE_INSTALL_PREFIX}/${VELKA_PKGCONFIG_DIR} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" VELKA_PC_TO_PREFIX "${VELKA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/velka.pc.in ${PROJECT_BINARY_DIR}/velka.pc @ONLY)

set(VELKA_PC_NAME mtkpb)
set(VELKA_PC_DESCRIPTION "Playback engine (software stand-in for the box's hardware engine)")
set(VELKA_PC_INCLUDE mtkpb)
configure_file(${CMAKE_CURRENT_LIST_DIR}/platform.pc.in ${PROJECT_BINARY_DIR}/mtkpb.pc @ONLY)
set(VELKA_PC_NAME bctidta)
set(VELKA_PC_DESCRIPTION "Download engine (stand-in for the box's CBctiDta)")
set(VELKA_PC_INCLUDE bctidta)
configure_file(${CMAKE_CURRENT_LIST_DIR}/platform.pc.in ${PROJECT_BINARY_DIR}/bctidta.pc @ONLY)
set(VELKA_PC_NAME ems)
set(VELKA_PC_DESCRIPTION "Peer-to-peer streaming engine (stand-in for the box's ems_ engine)")
set(VELKA_PC_INCLUDE ems)
configure_file(${CMAKE_CURRENT_LIST_DIR}/platform.pc.in ${PROJECT_BINARY_DIR}/ems.pc @ONLY)

install(FILES ${PROJECT_BINARY_DIR}/velka.pc DESTINATION ${VELKA_PKGCONFIG_DIR})
if(VELKA_PLATFORM_STANDINS)
  install(FILES ${PROJECT_BINARY_DIR}/mtkpb.pc ${PROJECT_BINARY_DIR}/bctidta.pc
    ${PROJECT_BINARY_DIR}/ems.pc DESTINATION ${VELKA_PKGCONFIG_DIR})
endif()
