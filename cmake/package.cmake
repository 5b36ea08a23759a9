# SPDX-License-Identifier: MIT
# The package: what pkg-config and find_package() say of the libraries, the seams' headers, tools, documents.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/hdmi_player)
set(platforms "")
foreach(platform linux sim)
  if(TARGET hdmiplayer_${platform})
    list(APPEND platforms ${platform})
  endif()
endforeach()

# What an archive needs beside it.
set(private_player "libswresample libavutil libdrm")
set(private_linux "alsa libavcodec libswresample libavutil")
set(private_sim "sndfile libavformat libavcodec libswresample libavutil")
set(system_libraries "-lstdc++ -lm -lpthread -ldl")

# Where the package is, from its own place: it may be moved.
file(RELATIVE_PATH up_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" up_to_prefix "${up_to_prefix}")

# write_pc(MODULE DESCRIPTION REQUIRES LIBRARY...)
function(write_pc module description requires)
  string(REPLACE ";" " " libraries "${ARGN}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/module.pc.in ${PROJECT_BINARY_DIR}/package/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/package/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

# The archives are modules of their own: pkg-config --static would link FFmpeg statically too. The player comes first,
# because it is the one that calls the platform.
set(archive "\${libdir}/libhdmiplayer.a")
write_pc(hdmi_player "${PROJECT_DESCRIPTION}; link a platform behind it" "" "-L\${libdir} -lhdmiplayer")
write_pc(hdmi_player_static "The player as an archive" "${private_player}" ${archive} ${system_libraries})
foreach(platform IN LISTS platforms)
  write_pc(hdmi_player_${platform} "The player on its ${platform} platform" ""
           "-L\${libdir} -lhdmiplayer -lhdmiplayer_${platform}")
  write_pc(hdmi_player_${platform}_static "The same as archives" "${private_${platform}} ${private_player}"
           ${archive} "\${libdir}/libhdmiplayer_${platform}.a" ${system_libraries})
endforeach()

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/hdmi_playerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/hdmi_playerConfig.cmake INSTALL_DESTINATION ${package_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/hdmi_playerConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/hdmi_playerConfig.cmake
              ${PROJECT_BINARY_DIR}/package/hdmi_playerConfigVersion.cmake DESTINATION ${package_dir})

# For who writes a port. Not beside the public header: a host has no use for them.
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hdmi_player_platform
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES README.md NEWS.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples FILES_MATCHING PATTERN "*.c" PATTERN "*.cpp"
        PATTERN "CMakeLists.txt")

# install_tool(TARGET): the program, and its manual page and shell completion as its argument parser tells them.
function(install_tool tool)
  set_target_properties(${tool} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS ${tool})
  if(CMAKE_CROSSCOMPILING OR HDMIPLAYER_SANITIZE)
    return() # it cannot run here, or not for this
  endif()
  set(page ${PROJECT_BINARY_DIR}/package/${tool}.1)
  set(completion ${PROJECT_BINARY_DIR}/package/${tool}.bash)
  add_custom_command(OUTPUT ${page} ${completion}
    COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:${tool}> -DNAME=${tool} -DVERSION=${PROJECT_VERSION}
            -DPAGE=${page} -DCOMPLETION=${completion} -P ${PROJECT_SOURCE_DIR}/cmake/manual.cmake
    DEPENDS ${tool} ${PROJECT_SOURCE_DIR}/cmake/manual.cmake VERBATIM)
  add_custom_target(${tool}_manual ALL DEPENDS ${page} ${completion})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${tool})
endfunction()
foreach(tool play view doctor run)
  if(TARGET hdmi-player-${tool})
    install_tool(hdmi-player-${tool})
  endif()
endforeach()
