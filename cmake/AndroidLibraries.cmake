# SPDX-License-Identifier: Apache-2.0
# Finds the Android libraries named in VNLOG_ANDROID_LIBRARIES (log, utils, binder), which often lie in a folder
# android/ that is no default search path. Makes the targets vnlog::android_log and so on, and sets VNLOG_ANDROID_FOUND;
# else VNLOG_ANDROID_MISSING tells what is missing. The cache variables ANDROID_INCLUDE_DIR, ANDROID_LOG_LIBRARY and so on
# take places of one's own. For the project itself and for those who use its package, whatever version of CMake's
# behaviour they ask for: of their variables only those with the prefixes VNLOG_ and ANDROID_ are touched.

cmake_policy(PUSH)
cmake_policy(VERSION 3.3...3.22)

set(VNLOG_ANDROID_LACKING "")
set(VNLOG_ANDROID_FOLDERS "") # where the libraries lie on this machine
find_path(ANDROID_INCLUDE_DIR log/logprint.h PATH_SUFFIXES android)
if(NOT ANDROID_INCLUDE_DIR)
  string(APPEND VNLOG_ANDROID_LACKING " ANDROID_INCLUDE_DIR")
endif()
foreach(VNLOG_ANDROID_NAME ${VNLOG_ANDROID_LIBRARIES})
  string(TOUPPER ANDROID_${VNLOG_ANDROID_NAME}_LIBRARY VNLOG_ANDROID_PLACE)
  find_library(${VNLOG_ANDROID_PLACE} ${VNLOG_ANDROID_NAME} PATH_SUFFIXES android)
  if(NOT ${VNLOG_ANDROID_PLACE})
    string(APPEND VNLOG_ANDROID_LACKING " ${VNLOG_ANDROID_PLACE}")
    continue()
  endif()
  get_filename_component(VNLOG_ANDROID_FOLDER "${${VNLOG_ANDROID_PLACE}}" DIRECTORY)
  list(APPEND VNLOG_ANDROID_FOLDERS "${VNLOG_ANDROID_FOLDER}")
  if(NOT TARGET vnlog::android_${VNLOG_ANDROID_NAME})
    add_library(vnlog::android_${VNLOG_ANDROID_NAME} UNKNOWN IMPORTED)
    set_target_properties(vnlog::android_${VNLOG_ANDROID_NAME} PROPERTIES
                          IMPORTED_LOCATION "${${VNLOG_ANDROID_PLACE}}"
                          INTERFACE_INCLUDE_DIRECTORIES "${ANDROID_INCLUDE_DIR}")
  endif()
endforeach()

if(VNLOG_ANDROID_LACKING)
  set(VNLOG_ANDROID_FOUND FALSE)
  set(VNLOG_ANDROID_MISSING "vnlog needs the Android libraries (${VNLOG_ANDROID_LIBRARIES}) and their headers, on Debian \
of android-liblog-dev and android-libutils-dev. Not found, and to be set where they lie elsewhere:${VNLOG_ANDROID_LACKING}")
else()
  set(VNLOG_ANDROID_FOUND TRUE)
  list(REMOVE_DUPLICATES VNLOG_ANDROID_FOLDERS)
  # Where they are on the machine that runs the programs, which matters when another one builds them.
  string(REPLACE "${CMAKE_SYSROOT}" "" ANDROID_INSTALLED_INCLUDE_DIR "${ANDROID_INCLUDE_DIR}")
  string(REPLACE "${CMAKE_SYSROOT}" "" VNLOG_ANDROID_INSTALLED "${VNLOG_ANDROID_FOLDERS}")
  set(VNLOG_ANDROID_RPATH "")
  foreach(VNLOG_ANDROID_FOLDER ${VNLOG_ANDROID_FOLDERS})
    string(REPLACE "${CMAKE_SYSROOT}" "" VNLOG_ANDROID_PLACE "${VNLOG_ANDROID_FOLDER}")
    if(NOT VNLOG_ANDROID_FOLDER IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES
       AND NOT VNLOG_ANDROID_PLACE MATCHES "^(/usr)?/lib$")
      list(APPEND VNLOG_ANDROID_RPATH "${VNLOG_ANDROID_PLACE}")
    endif()
  endforeach()
endif()

unset(VNLOG_ANDROID_LACKING)
unset(VNLOG_ANDROID_NAME)
unset(VNLOG_ANDROID_PLACE)
unset(VNLOG_ANDROID_FOLDER)
cmake_policy(POP)
