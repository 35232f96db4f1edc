# Turns a binary file into a C++ source defining a byte array.
#   cmake -DINPUT=file -DOUTPUT=file.cpp -DSYMBOL=name -P embed.cmake
file(READ ${INPUT} hex HEX)
string(LENGTH "${hex}" length)
math(EXPR bytes "${length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," body "${hex}")
file(WRITE ${OUTPUT}
  "// Generated from ${INPUT}; do not edit.\n#include <cstddef>\n#include <cstdint>\n"
  "extern const uint8_t ${SYMBOL}[];\nextern const size_t ${SYMBOL}_size;\n"
  "const uint8_t ${SYMBOL}[] = {${body}};\nconst size_t ${SYMBOL}_size = ${bytes};\n")
