# Turns the data files of the tool into one C++ source: a byte array per
# file and an index by file name (relative to BASE).
#   cmake -DBASE=dir -DOUTPUT=file.cpp -DFILES="a|b" -P embed.cmake
string(REPLACE "|" ";" FILES "${FILES}")
set(arrays "")
set(index "")
set(i 0)
foreach(path ${FILES})
  file(READ ${path} hex HEX)
  string(LENGTH "${hex}" length)
  math(EXPR bytes "${length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," body "${hex}")
  file(RELATIVE_PATH name ${BASE} ${path})
  string(APPEND arrays "static const uint8_t file${i}[] = {${body}};\n")
  string(APPEND index "  {\"${name}\", file${i}, ${bytes}},\n")
  math(EXPR i "${i} + 1")
endforeach()
file(WRITE ${OUTPUT}
  "// Generated from the tool's data files; do not edit.\n#include \"embedded_data.h\"\n\n"
  "${arrays}\nconst EmbeddedFile kEmbeddedFiles[] = {\n${index}};\n"
  "const size_t kEmbeddedFileCount = ${i};\n")
