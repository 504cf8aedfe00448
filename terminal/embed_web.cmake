# Turns the live view's files into a C++ header: one byte array per file and
# a table of their paths and content types.
#   cmake -DOUTPUT=web_assets.h -DSOURCE_DIR=dir -DFILES=index.html,style.css,app.js -P embed_web.cmake
string(REPLACE "," ";" FILES "${FILES}")
set(arrays "")
set(table "")
set(index 0)
foreach(name IN LISTS FILES)
  file(READ "${SOURCE_DIR}/${name}" bytes HEX)
  string(LENGTH "${bytes}" hex_length)
  math(EXPR size "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(REGEX REPLACE "((0x..,){24})" "\\1\n    " bytes "${bytes}")
  if(name MATCHES "\\.html$")
    set(type "text/html; charset=utf-8")
  elseif(name MATCHES "\\.css$")
    set(type "text/css; charset=utf-8")
  elseif(name MATCHES "\\.js$")
    set(type "text/javascript; charset=utf-8")
  else()
    set(type "application/octet-stream")
  endif()
  if(name STREQUAL "index.html")
    set(path "/")
  else()
    set(path "/${name}")
  endif()
  string(APPEND arrays "inline const unsigned char file_${index}[] = {\n    ${bytes}\n};\n")
  string(APPEND table "    {\"${path}\", \"${type}\", file_${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Generated from terminal/web by embed_web.cmake: do not edit.
#pragma once

#include <cstddef>

namespace terminal::web {

struct Asset {
    const char* path;
    const char* type;
    const unsigned char* data;
    std::size_t size;
};

${arrays}
inline const Asset assets[] = {
${table}};

}  // namespace terminal::web
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
