# SPDX-License-Identifier: Apache-2.0
# Finds the Android libraries named in VNLOG_ANDROID_LIBRARIES (log, utils, binder), which often lie in a folder
# android/ that is no default search path. Makes the targets vnlog::android_log and so on, and sets VNLOG_ANDROID_FOUND;
# else VNLOG_ANDROID_MISSING tells what is missing. The cache variables ANDROID_INCLUDE_DIR, ANDROID_LOG_LIBRARY and so on
# take places of one's own. For the project itself and for those who use its package.

set(missing "")
find_path(ANDROID_INCLUDE_DIR log/logprint.h PATH_SUFFIXES android)
if(NOT ANDROID_INCLUDE_DIR)
  string(APPEND missing " ANDROID_INCLUDE_DIR")
endif()
foreach(library ${VNLOG_ANDROID_LIBRARIES})
  string(TOUPPER ANDROID_${library}_LIBRARY place)
  find_library(${place} ${library} PATH_SUFFIXES android)
  if(NOT ${place})
    string(APPEND missing " ${place}")
  elseif(NOT TARGET vnlog::android_${library})
    add_library(vnlog::android_${library} UNKNOWN IMPORTED)
    set_target_properties(vnlog::android_${library} PROPERTIES IMPORTED_LOCATION ${${place}})
    set_target_properties(vnlog::android_${library} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${ANDROID_INCLUDE_DIR}")
  endif()
endforeach()

if(missing)
  set(VNLOG_ANDROID_FOUND FALSE)
  set(VNLOG_ANDROID_MISSING "vnlog needs the Android libraries (${VNLOG_ANDROID_LIBRARIES}) and their headers, on Debian \
of android-liblog-dev and android-libutils-dev. Not found, and to be set where they lie elsewhere:${missing}")
else()
  set(VNLOG_ANDROID_FOUND TRUE)
  # Where they are on the machine that runs the programs, which matters when another one builds them.
  get_filename_component(ANDROID_LIBRARY_DIR ${ANDROID_LOG_LIBRARY} DIRECTORY)
  string(REPLACE "${CMAKE_SYSROOT}" "" ANDROID_INSTALLED_INCLUDE_DIR "${ANDROID_INCLUDE_DIR}")
  string(REPLACE "${CMAKE_SYSROOT}" "" ANDROID_INSTALLED_LIBRARY_DIR "${ANDROID_LIBRARY_DIR}")
  set(VNLOG_ANDROID_RPATH "")
  if(NOT ANDROID_LIBRARY_DIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES
     AND NOT ANDROID_INSTALLED_LIBRARY_DIR MATCHES "^(/usr)?/lib$")
    set(VNLOG_ANDROID_RPATH ${ANDROID_INSTALLED_LIBRARY_DIR})
  endif()
endif()
