# Installs the library, its public headers, kovractl, a CMake package (find_package(kovrabpf)
# gives kovrabpf::kovrabpf) and a pkg-config file (kovrabpf.pc).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KOVRA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kovrabpf)

# The installed library and tool find the Android libraries (outside the linker's default path
# on Debian), and the libraries installed beside them.
set_target_properties(kovrabpf PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    INSTALL_RPATH "$ORIGIN;${KOVRA_ANDROID_LIBDIR}")

# Where the system has no libnetutils, the library loads the host stand-in installed beside it.
install(TARGETS kovrabpf kovra_netutils EXPORT kovrabpfTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The records and services, the map catalogue and the map handle templates they are built on
# all install side by side, as <kovrabpf/...>.
file(GLOB KOVRA_PUBLIC_HEADERS
     ${PROJECT_SOURCE_DIR}/include/kovrabpf/*.h ${PROJECT_SOURCE_DIR}/bpf/include/kovrabpf/*.h)
install(FILES ${KOVRA_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kovrabpf)

if(TARGET kovractl)
    set_target_properties(kovractl PROPERTIES
        INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR};${KOVRA_ANDROID_LIBDIR}")
    install(TARGETS kovractl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES ${PROJECT_SOURCE_DIR}/tools/kovractl/kovractl.bash
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kovractl)
    if(TARGET kovractl_man)
        install(FILES ${PROJECT_BINARY_DIR}/tools/kovractl/kovractl.1
                DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    endif()
endif()

install(EXPORT kovrabpfTargets NAMESPACE kovrabpf:: DESTINATION ${KOVRA_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kovrabpfConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/kovrabpfConfig.cmake
                              INSTALL_DESTINATION ${KOVRA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kovrabpfConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kovrabpfConfig.cmake
              ${PROJECT_BINARY_DIR}/kovrabpfConfigVersion.cmake
              ${CMAKE_CURRENT_LIST_DIR}/KovraDependencies.cmake
        DESTINATION ${KOVRA_CMAKE_DIR})

file(RELATIVE_PATH KOVRA_PC_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/kovrabpf.pc.in ${PROJECT_BINARY_DIR}/kovrabpf.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kovrabpf.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
