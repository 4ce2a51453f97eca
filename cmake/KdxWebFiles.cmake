# Writes the C++ source that holds the fleet page's files (see
# tools/fleet/web_files.h): cmake -DOUTPUT=<source> -DDIR=<folder>
# "-DENTRIES=<path>|<file>|<type>;..." -P KdxWebFiles.cmake (the types are
# text, served as UTF-8). Each file's
# bytes become a string literal of \xNN escapes (each followed by another
# escape or the literal's end, so that none runs into the next), so any byte
# survives; only the files named are read, and nothing is fetched.
cmake_minimum_required(VERSION 3.16)

set(definitions "")
set(table "")
set(index 0)
foreach(entry ${ENTRIES})
  string(REPLACE "|" ";" fields "${entry}")
  list(GET fields 0 path)
  list(GET fields 1 file)
  list(GET fields 2 type)
  file(READ "${DIR}/${file}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  # 32 bytes a line.
  set(lines "")
  set(at 0)
  while(at LESS digits)
    string(SUBSTRING "${hex}" ${at} 64 chunk)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" chunk "${chunk}")
    string(APPEND lines "\n    \"${chunk}\"")
    math(EXPR at "${at} + 64")
  endwhile()
  string(APPEND definitions "// ${file}\nconst char kFile${index}[] =${lines};\n\n")
  string(APPEND table "    {\"${path}\", \"${type}; charset=utf-8\", kFile${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()

set(source "// Written by cmake/KdxWebFiles.cmake from tools/fleet/web/: do not edit.
#include \"tools/fleet/web_files.h\"

namespace zel::fleet {
namespace {

${definitions}}  // namespace

const WebFile kWebFiles[] = {
${table}};
const size_t kWebFileCount = sizeof kWebFiles / sizeof kWebFiles[0];

}  // namespace zel::fleet
")
# Written only when it changed, so that nothing is compiled again for nothing.
file(WRITE "${OUTPUT}.new" "${source}")
file(COPY_FILE "${OUTPUT}.new" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.new")
