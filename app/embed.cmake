# Writes the stencil studio's page files into a C++ source as byte arrays,
# so that the server carries them and needs no files of its own at run time.
#   cmake -DOUT=<file.cpp> -DFILES=<name>=<path>,<name>=<path>,... -P embed.cmake
string(REPLACE "," ";" FILES "${FILES}")
set(code "// Made by app/embed.cmake from the studio's page files; do not edit.\n#include <cstddef>\n\n")
foreach(entry IN LISTS FILES)
  string(REPLACE "=" ";" parts "${entry}")
  list(GET parts 0 name)
  list(GET parts 1 path)
  file(READ "${path}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n"
         bytes "${bytes}")
  string(APPEND code "extern const unsigned char ${name}[] = {\n${bytes}};\nextern const size_t ${name}Size = ${size};\n\n")
endforeach()
file(WRITE "${OUT}.new" "${code}")
file(COPY_FILE "${OUT}.new" "${OUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUT}.new")
