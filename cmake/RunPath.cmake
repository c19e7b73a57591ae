# Where programs and libraries of the build find each other. CMake's own way leaves an empty element, the current folder,
# in the RUNPATH of what will be installed, and the folder of the build in its build ID.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")

# What is installed has no RUNPATH, so that the system's folders are searched in the system's order. Stands behind the
# install() of the target into FOLDER.
function(install_without_runpath target folder component)
  install(CODE "
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE folder)
    cmake_path(APPEND folder \"${folder}\")
    file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${folder}/$<TARGET_FILE_NAME:${target}>\")"
    COMPONENT ${component})
endfunction()
