# The installable package: the libraries a consumer builds the controller's machines from, their
# headers (the kivc output too), a CMake package configuration and a pkg-config file.
#
# kiv_package_library(<target> [HEADERS <file>...]): <target> becomes ControllerMounts::<target>,
# for a parent project as for an installed one. Its folder's headers are installed (only the
# HEADERS given, when given), and the kivc output of the target.
#
# kiv_package_install(): the export set, the package configuration files and controller-mounts.pc;
# call once, after every kiv_package_library.

include(CMakePackageConfigHelpers)

set(KIV_PACKAGE_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ControllerMounts)

# KIV_CHECKS adds fields to header-only types, so a consumer must compile with the value the
# libraries were built with, not the one its own build type would choose. (A multi-configuration
# generator has no build type here: its installs are taken as checked.)
string(TOUPPER "${CMAKE_BUILD_TYPE}" kiv_build_type)
if(kiv_build_type MATCHES "^(RELEASE|MINSIZEREL)$")
  set(KIV_INSTALLED_CHECKS "")
else()
  set(KIV_INSTALLED_CHECKS KIV_CHECKS)
endif()

function(kiv_package_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "HEADERS")
  add_library(ControllerMounts::${target} ALIAS ${target})
  # The folder names (model, platform, registry) are too common for a library in a shared prefix.
  # Shared ones: a 0.x minor release may break the ABI, so it is part of the soname; installed,
  # each finds its siblings beside itself.
  set_target_properties(${target} PROPERTIES OUTPUT_NAME controller-mounts-${target}
                        VERSION ${PROJECT_VERSION}
                        SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
                        INSTALL_RPATH $ORIGIN)
  set_property(GLOBAL APPEND PROPERTY KIV_PACKAGE_TARGETS ${target})
  if(NOT KIV_INSTALL)
    return()
  endif()

  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  if(arg_HEADERS)
    install(FILES ${arg_HEADERS} DESTINATION ${KIV_INSTALL_INCLUDEDIR}/${folder})
  else()
    install(DIRECTORY ./ DESTINATION ${KIV_INSTALL_INCLUDEDIR}/${folder}
            FILES_MATCHING PATTERN "*.h"
            PATTERN tests EXCLUDE PATTERN fuzz EXCLUDE PATTERN kivc EXCLUDE)
  endif()
  get_target_property(generated ${target} KIV_GENERATED_DIR)
  if(generated)
    install(DIRECTORY ${generated}/ DESTINATION ${KIV_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
  endif()
  install(TARGETS ${target} EXPORT ControllerMountsTargets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          INCLUDES DESTINATION ${KIV_INSTALL_INCLUDEDIR})
endfunction()

function(kiv_package_install)
  install(EXPORT ControllerMountsTargets NAMESPACE ControllerMounts:: DESTINATION ${KIV_PACKAGE_CMAKEDIR})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ControllerMountsConfig.cmake.in
                                ${PROJECT_BINARY_DIR}/ControllerMountsConfig.cmake
                                INSTALL_DESTINATION ${KIV_PACKAGE_CMAKEDIR})
  # Before 1.0 a minor release may break the interface: 0.1.x accepts a request for 0.1, never
  # for 0.2 (SameMajorVersion would take any 0.y for any 0.x).
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/ControllerMountsConfigVersion.cmake
                                   COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/ControllerMountsConfig.cmake
                ${PROJECT_BINARY_DIR}/ControllerMountsConfigVersion.cmake
          DESTINATION ${KIV_PACKAGE_CMAKEDIR})

  # Libs in link order: each library before those it depends on, the reverse of declaration.
  get_property(targets GLOBAL PROPERTY KIV_PACKAGE_TARGETS)
  list(REVERSE targets)
  set(KIV_PC_LIBS "")
  foreach(target IN LISTS targets)
    string(APPEND KIV_PC_LIBS " -lcontroller-mounts-${target}")
  endforeach()
  set(KIV_PC_CFLAGS "")
  if(KIV_INSTALLED_CHECKS)
    set(KIV_PC_CFLAGS " -D${KIV_INSTALLED_CHECKS}")
  endif()
  # Relative to the .pc file, so that the installed tree may move (CI installs to a temporary prefix).
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(KIV_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(KIV_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
    set(KIV_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}/ControllerMounts")
  else()
    file(RELATIVE_PATH up /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
    set(KIV_PC_PREFIX "\${pcfiledir}/${up}")
    set(KIV_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    set(KIV_PC_INCLUDEDIR "\${prefix}/${KIV_INSTALL_INCLUDEDIR}")
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/controller-mounts.pc.in
                 ${PROJECT_BINARY_DIR}/controller-mounts.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/controller-mounts.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
