# What `cmake --install` puts in place, in components that match the binary packages.
include(CMakePackageConfigHelpers)

set(tsmail_headers MailUserId.h mailstore.h userpref.h maillist.h Exception.h support.h)
foreach(header IN LISTS tsmail_headers)
  if(EXISTS ${PROJECT_SOURCE_DIR}/include/tessaly/${header})
    install(FILES include/tessaly/${header}
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tessaly COMPONENT development)
  endif()
endforeach()

set(tsmail_targets tsmail)
if(TSMAIL_BUNDLED_SUPPORT)
  list(APPEND tsmail_targets tssupport kqfquery)
endif()
set(tsmail_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/tsmail)
install(TARGETS ${tsmail_targets} EXPORT tsmail-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development)
install(EXPORT tsmail-targets NAMESPACE Tessaly:: DESTINATION ${tsmail_cmakedir}
        COMPONENT development)
configure_package_config_file(cmake/tsmail-config.cmake.in tsmail-config.cmake
  INSTALL_DESTINATION ${tsmail_cmakedir})
write_basic_package_version_file(tsmail-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tsmail-config.cmake
              ${PROJECT_BINARY_DIR}/tsmail-config-version.cmake
        DESTINATION ${tsmail_cmakedir} COMPONENT development)

# Relative to the file itself, so that the installed tree can be moved.
file(RELATIVE_PATH tsmail_pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" tsmail_pc_prefix "${tsmail_pc_prefix}")
if(TSMAIL_BUNDLED_SUPPORT)
  set(TSMAIL_PC_SUPPORT "-ltssupport")
else()
  set(TSMAIL_PC_SUPPORT "${TSMAIL_SUPPORT}")
endif()
configure_file(cmake/tsmail.pc.in tsmail.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tsmail.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
