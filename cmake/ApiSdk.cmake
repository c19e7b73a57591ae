# The client API from an installed SDK, as the imported target ApiTSM64. SDKs differ in their layout, so this looks for
# the pieces anywhere below TSM_SDK_DIR.
if(NOT IS_DIRECTORY "${TSM_SDK_DIR}")
  message(FATAL_ERROR "TSM_SDK_DIR: there is no folder ${TSM_SDK_DIR}")
endif()
file(REAL_PATH "${TSM_SDK_DIR}" sdk)
string(REGEX REPLACE "([][*?])" "[\\1]" sdk_pattern "${sdk}")

# Headers of one version belong together: all of them must be in one folder.
set(headers dsmapitd.h dsmapifp.h dsmrc.h)
set(never_found ${headers})
set(split "")
set(include_folder "")
file(GLOB_RECURSE found FOLLOW_SYMLINKS
  "${sdk_pattern}/dsmapitd.h" "${sdk_pattern}/dsmapifp.h" "${sdk_pattern}/dsmrc.h")
foreach(header ${found})
  cmake_path(GET header PARENT_PATH folder)
  cmake_path(GET header FILENAME name)
  list(REMOVE_ITEM never_found ${name})
  string(APPEND split "\n  ${header}")
  if(NOT include_folder AND EXISTS "${folder}/dsmapitd.h" AND EXISTS "${folder}/dsmapifp.h"
      AND EXISTS "${folder}/dsmrc.h")
    set(include_folder "${folder}")
  endif()
endforeach()
if(never_found)
  list(JOIN never_found ", " never_found)
  message(FATAL_ERROR "TSM_SDK_DIR: ${never_found} not found in or below ${sdk}")
endif()
if(NOT include_folder)
  message(FATAL_ERROR "TSM_SDK_DIR: no one folder in or below ${sdk} has all of dsmapitd.h, dsmapifp.h and dsmrc.h:"
    "${split}")
endif()

file(GLOB_RECURSE libraries FOLLOW_SYMLINKS "${sdk_pattern}/libApiTSM64.so")
foreach(file ${libraries})
  if(NOT EXISTS "${file}") # a link to nothing
    list(REMOVE_ITEM libraries "${file}")
  endif()
endforeach()
if(NOT libraries)
  message(FATAL_ERROR "TSM_SDK_DIR: libApiTSM64.so not found in or below ${sdk}")
endif()
list(GET libraries 0 sdk_library)
message(STATUS "Client API: ${sdk_library}, headers in ${include_folder}")

cmake_path(GET sdk_library PARENT_PATH sdk_folder)
list(PREPEND CMAKE_INSTALL_RPATH "${sdk_folder}") # for the build only

# The libraries that the API's library needs may be known only at run time.
add_link_options(-Wl,--allow-shlib-undefined)

# If the library has no SONAME, linking it by its path would leave that path in the programs.
add_library(ApiTSM64 SHARED IMPORTED GLOBAL)
set_target_properties(ApiTSM64 PROPERTIES
  IMPORTED_LOCATION "${sdk_library}"
  IMPORTED_NO_SONAME ON
  INTERFACE_INCLUDE_DIRECTORIES "${include_folder}")

# Tests can control an SDK that was made from the stand-in.
set(api_is_standin OFF)
if(EXISTS "${include_folder}/standin/testcontrol.h")
  set(api_is_standin ON)
endif()
