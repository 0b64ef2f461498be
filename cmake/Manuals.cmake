# SPDX-License-Identifier: Apache-2.0
# The manuals, made by scdoc. Their date is that of SOURCE_DATE_EPOCH where the environment of the build has it.
set(VNLOG_MANUALS AUTO CACHE STRING "Make and install the manuals: ON, OFF, or AUTO (where scdoc is found)")
set_property(CACHE VNLOG_MANUALS PROPERTY STRINGS AUTO ON OFF)
if(NOT VNLOG_MANUALS MATCHES "^(AUTO|ON|OFF)$")
  message(FATAL_ERROR "VNLOG_MANUALS is AUTO, ON or OFF, not ${VNLOG_MANUALS}")
endif()

function(vnlog_manuals)
  set(pages)
  foreach(manual ${ARGN})
    set(source ${CMAKE_CURRENT_BINARY_DIR}/man/${manual}.scd)
    set(page ${CMAKE_CURRENT_BINARY_DIR}/man/${manual})
    configure_file(docs/man/${manual}.scd ${source} @ONLY)
    add_custom_command(
      OUTPUT ${page}
      COMMAND sh -c "\"$0\" <\"$1\" >\"$2.new\" && mv \"$2.new\" \"$2\"" ${SCDOC} ${source} ${page}
      DEPENDS ${source}
      VERBATIM)
    list(APPEND pages ${page})
    string(REGEX MATCH "[0-9]$" section ${manual})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(manuals ALL DEPENDS ${pages})
endfunction()

if(VNLOG_MANUALS)
  find_program(SCDOC scdoc)
  if(SCDOC)
    vnlog_manuals(logserviced.8 logset.1 logwrite.1 logview.1 log.cfg.5)
  elseif(VNLOG_MANUALS STREQUAL "AUTO")
    message(STATUS "There is no scdoc: the manuals are not made")
  else()
    message(FATAL_ERROR "VNLOG_MANUALS is ON, and there is no scdoc")
  endif()
endif()
