# The Debian packages, one for each installed component. scripts/package makes them.
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md releases REGEX "^## \\[[0-9]")
list(GET releases 0 newest)
if(NOT newest MATCHES "^## \\[(.+)\\] - ([0-9-]+)$" OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "The newest release of CHANGELOG.md is \"${newest}\", and this is version ${PROJECT_VERSION}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md)

set(TSM_MAINTAINER "tsmconnector maintainers <tsmconnector@localhost>" CACHE STRING
  "Name and address that the packages carry")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "${TSM_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_COMPONENTS_ALL library development)
# Debug symbols go into packages of their own (NAME-dbgsym).
set(CPACK_STRIP_FILES OFF)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Staged as if installed to the prefix, because some files contain it.
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# This covers libraries with a version in their names, so not the stand-in.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Libraries in these folders (the API's and our own) belong to no package that could be depended on.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
if(TSM_SDK_DIR)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${sdk_folder})
endif()

set(runtime libtsmconnector${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${runtime})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SUGGESTS tsm-standin)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "backup objects on a TSM server - library
Through this library a backup product stores byte streams as backup objects
on a TSM server, lists them, reads them back, renames and deletes them.
.
It needs libApiTSM64.so, the TSM client API, which is not part of Debian:
install it from the server's vendor.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtsmconnector-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "backup objects on a TSM server - development files
The header, and what CMake and pkg-config need, to build a program with
libtsmconnector. The TSM client API is needed to run it, not to build it.")

if(TSM_TOOL)
  list(APPEND CPACK_COMPONENTS_ALL tool trace)
endif()
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tsmctl)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${runtime} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "back up files to a TSM server, from the command line
tsmctl backs up files, directories and streams as objects on a TSM server,
lists, restores, verifies, renames and deletes them.
.
It needs libApiTSM64.so, the TSM client API, from the server's vendor.")

set(CPACK_DEBIAN_TRACE_PACKAGE_NAME tsm-trace)
set(CPACK_DEBIAN_TRACE_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TRACE_DESCRIPTION "record what programs and the TSM client API say to each other
tsmtrace records the calls that a program makes on the TSM client API, without
passwords and data, and tells what went wrong, in words. The programs need not
be rebuilt.
.
It works with any libApiTSM64.so, which it does not contain.")

if(NOT TSM_SDK_DIR)
  list(APPEND CPACK_COMPONENTS_ALL standin)
  set(CPACK_DEBIAN_STANDIN_PACKAGE_NAME tsm-standin)
  set(CPACK_DEBIAN_STANDIN_PACKAGE_SECTION devel)
  set(CPACK_DEBIAN_STANDIN_DESCRIPTION "stand-in for the TSM client API, for tests
Takes the place of the TSM client API where there is no server. Everything that
is backed up goes to a folder of THIS MACHINE. It is for tests and development,
and does not protect against the loss of the machine.
.
Any other libApiTSM64.so that the dynamic linker knows takes precedence.")
  foreach(file postinst prerm triggers)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/tsm-standin/${file} packaging/${file} @ONLY)
    list(APPEND CPACK_DEBIAN_STANDIN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/${file})
  endforeach()
endif()

# Each package carries the project's licence, as soon as there is one, and the notices of the libraries whose headers
# are compiled into its programs.
set(notices "")
if(TSM_TOOL)
  foreach(library libcli11-dev libfmt-dev nlohmann-json3-dev)
    set(notice /usr/share/doc/${library}/copyright)
    if(EXISTS ${notice})
      list(APPEND notices ${library})
    else()
      message(NOTICE "There is no ${notice}: add that library's notice before you pass the programs on")
    endif()
  endforeach()
endif()
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} name)
  set(folder ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${folder} RENAME copyright COMPONENT ${component} OPTIONAL)
  if(component MATCHES "^(tool|trace|standin)$")
    foreach(library ${notices})
      install(FILES /usr/share/doc/${library}/copyright
        DESTINATION ${folder}/notices RENAME ${library} COMPONENT ${component})
    endforeach()
  endif()
endforeach()

set(CPACK_TSM_CHANGELOG ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/DebianFiles.cmake)
include(CPack)
