# Lets programs and libraries of the build find each other. CMake's own way would leave an empty element, which means
# the current folder, in the RUNPATH of what will be installed, and make its build ID depend on the build's folder.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")

# Removes the RUNPATH of an installed target, so that the system's folders are searched in the system's order. Call it
# after the install() of the target into FOLDER.
function(install_without_runpath target folder component)
  install(CODE "
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE folder)
    cmake_path(APPEND folder \"${folder}\")
    file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${folder}/$<TARGET_FILE_NAME:${target}>\")"
    COMPONENT ${component})
endfunction()
