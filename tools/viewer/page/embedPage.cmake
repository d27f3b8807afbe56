# Joins the parts of the page into one C++ source:
#   cmake -DPAGE=FOLDER "-DSCRIPTS=a.js|b.js" -DOUTPUT=FILE -P embedPage.cmake
# The page's policy names its style and its script by their hashes, so that nothing else runs in it.
cmake_minimum_required(VERSION 3.22)

# The SHA-256 of a text as content security policies write it.
function(policyHash text result)
  string(SHA256 hex "${text}")
  set(digits ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
  set(base64 "")
  # 32 bytes and a zero are 11 groups of three; the digit that comes of the zero is written "=".
  foreach(group RANGE 10)
    math(EXPR at "${group} * 6")
    string(SUBSTRING "${hex}00" ${at} 6 bytes)
    foreach(shift 18 12 6 0)
      math(EXPR digit "(0x${bytes} >> ${shift}) & 63")
      string(SUBSTRING ${digits} ${digit} 1 character)
      string(APPEND base64 ${character})
    endforeach()
  endforeach()
  string(SUBSTRING ${base64} 0 43 base64)
  set(${result} "sha256-${base64}=" PARENT_SCOPE)
endfunction()

file(READ ${PAGE}/page.html page)
file(READ ${PAGE}/page.css style)
set(script "'use strict';\n(() => {\n")
string(REPLACE "|" ";" SCRIPTS "${SCRIPTS}")
foreach(name IN LISTS SCRIPTS)
  file(READ ${PAGE}/${name} text)
  string(APPEND script "\n// ${name}\n${text}")
endforeach()
string(APPEND script "})();\n")

policyHash("${style}" styleHash)
policyHash("${script}" scriptHash)
string(REPLACE "@STYLE_HASH@" "${styleHash}" page "${page}")
string(REPLACE "@SCRIPT_HASH@" "${scriptHash}" page "${page}")
string(REPLACE "@STYLE@" "${style}" page "${page}")
string(REPLACE "@SCRIPT@" "${script}" page "${page}")

set(place "@REPORT@")
string(FIND "${page}" "${place}" begin)
string(LENGTH "${place}" length)
math(EXPR end "${begin} + ${length}")
string(SUBSTRING "${page}" 0 ${begin} before)
string(SUBSTRING "${page}" ${end} -1 after)
file(WRITE ${OUTPUT} "// Made by embedPage.cmake.
#include \"pageParts.h\"

namespace viewer {
const std::string_view kPageBeforeReport = R\"page(${before})page\";
const std::string_view kPageAfterReport = R\"page(${after})page\";
}  // namespace viewer
")
