# What "cmake --install" adds for those who build against the library: pkg-config file, CMake package, man pages.
# Libraries, headers and programs are installed where they are built.

include(CMakePackageConfigHelpers)

# The prefix is told relative to where the file itself is, for "cmake --install --prefix" may name another one, and a
# tree may be moved; directories outside of the prefix as they are. But /usr by its name: what the compiler knows anyway
# pkg-config leaves out only if it recognises it.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(RUK_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH RUK_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" RUK_PC_PREFIX "\${pcfiledir}/${RUK_PC_PREFIX}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(RUK_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(RUK_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(${CMAKE_SOURCE_DIR}/cmake/ruk.pc.in ${CMAKE_BINARY_DIR}/ruk.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/ruk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(RUK_BUILD_SOFTNIC)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/ruk-softnic.pc.in ${CMAKE_BINARY_DIR}/ruk-softnic.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/ruk-softnic.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()

# The version file refuses users of another word size; -m32 came after CMake had looked at the compiler.
if(RUK_32BIT)
  set(CMAKE_SIZEOF_VOID_P 4)
endif()
set(RUK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ruk)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/ruk-config.cmake.in ${CMAKE_BINARY_DIR}/ruk-config.cmake
                              INSTALL_DESTINATION ${RUK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ruk-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ruk-config.cmake ${CMAKE_BINARY_DIR}/ruk-config-version.cmake
        DESTINATION ${RUK_CMAKE_DIR})
install(EXPORT ruk-targets NAMESPACE ruk:: DESTINATION ${RUK_CMAKE_DIR})
if(RUK_BUILD_SOFTNIC)
  install(EXPORT ruk-softnic-targets NAMESPACE ruk:: DESTINATION ${RUK_CMAKE_DIR})
endif()

# man/ruk_open.3 goes to man3, man/ruk-recv.1 to man1; links among them stay links.
foreach(section 1 3 7 8)
  file(GLOB pages CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/man/*.${section} ${CMAKE_SOURCE_DIR}/man/man${section}/*.${section})
  if(pages)
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endif()
endforeach()

# Bash finds completions by the name of the command.
foreach(program rukrun ruk-accept ruk-bench ruk-capture ruk-info ruk-ping ruk-recv ruk-send ruk-top)
  if(TARGET ${program})
    install(FILES ${CMAKE_SOURCE_DIR}/completions/ruk.bash RENAME ${program}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  endif()
endforeach()

# The dynamic linker finds a library of /usr/local by its cache alone. Package builds, which have DESTDIR, see to it
# their own way.
install(CODE "set(libdir \"${CMAKE_INSTALL_LIBDIR}\")")
install(CODE [[
  if("$ENV{DESTDIR}" STREQUAL "")
    cmake_path(ABSOLUTE_PATH libdir BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
    message(STATUS "Programs find libruk.so in ${libdir} once 'ldconfig' has run as root; where the linker is not told "
                   "of that directory, with LD_LIBRARY_PATH=${libdir}")
  endif()
]])
