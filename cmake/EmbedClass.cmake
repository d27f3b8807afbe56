# Writes the bytes of a class file as the source of a header that declares k<NAME>Bytes and
# k<NAME>Size.
# cmake -DCLASS=<class file> -DHEADER=<header> -DNAME=<name> -DOUTPUT=<source> -P EmbedClass.cmake
file(READ ${CLASS} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
file(WRITE ${OUTPUT} "#include \"${HEADER}\"

namespace agent {

const std::uint8_t k${NAME}Bytes[] = {${bytes}};
const std::size_t k${NAME}Size = sizeof k${NAME}Bytes;

}  // namespace agent
")
