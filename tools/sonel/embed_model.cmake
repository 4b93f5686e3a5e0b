# Writes OUTPUT, a C++ file holding the bytes of INPUT as sonel_cli::SYMBOL and its size as
# SYMBOLSize (empty when INPUT does not exist, so a checkout without a trained model still builds).
set(bytes "")
set(size 0)
if(EXISTS "${INPUT}")
  file(READ "${INPUT}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
endif()
file(WRITE "${OUTPUT}" "// Generated from ${INPUT}.\n#include \"sonel/embedded_model.h\"\n"
  "namespace sonel_cli {\n"
  "alignas(8) const unsigned char ${SYMBOL}[] = {${bytes} 0};\n"
  "const unsigned int ${SYMBOL}Size = ${size};\n"
  "}  // namespace sonel_cli\n")
