# Writes the bytes of a file as a C++ array: cmake -DINPUT=... -DOUTPUT=... -DNAME=... -P this
file(READ ${INPUT} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
file(WRITE ${OUTPUT} "#pragma once\n\ninline constexpr unsigned char ${NAME}[] = {${bytes}};\n")
