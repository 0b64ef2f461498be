# SPDX-License-Identifier: Apache-2.0
# Makes a source file of the page of a report: cmake -DPAGE=report.html -DSOURCE=out.cpp -P EmbedPage.cmake
# What the page may run is told by hash, so that nothing else in it is ever run.

function(base64_of_sha256 text result)
  set(letters ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
  string(SHA256 digits "${text}")
  string(APPEND digits 00) # to whole groups of three digits, each of which makes two letters
  set(encoded "")
  foreach(at RANGE 0 63 3)
    string(SUBSTRING ${digits} ${at} 3 group)
    foreach(shift 6 0)
      math(EXPR letter "(0x${group} >> ${shift}) & 63")
      string(SUBSTRING ${letters} ${letter} 1 letter)
      string(APPEND encoded ${letter})
    endforeach()
  endforeach()
  string(SUBSTRING ${encoded} 0 43 encoded)
  set(${result} "${encoded}=" PARENT_SCOPE)
endfunction()

function(text_of_element name page result)
  string(FIND "${page}" "<${name}>" begin)
  string(FIND "${page}" "</${name}>" end)
  string(LENGTH "<${name}>" tag)
  math(EXPR begin "${begin} + ${tag}")
  math(EXPR length "${end} - ${begin}")
  string(SUBSTRING "${page}" ${begin} ${length} text)
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

file(READ ${PAGE} page)
foreach(name script style)
  text_of_element(${name} "${page}" text)
  base64_of_sha256("${text}" hash)
  string(TOUPPER ${name} mark)
  string(REPLACE "@${mark}_HASH@" "${hash}" page "${page}")
endforeach()
file(WRITE ${SOURCE} "#include \"reader/ReportPage.h\"

namespace vnlog {

const std::string_view kReportPage = R\"page(${page})page\";

} // namespace vnlog
")
