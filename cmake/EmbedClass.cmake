# Writes the bytes of a class file as the source of src/contention/parkHookClass.h.
# cmake -DCLASS=<class file> -DOUTPUT=<source> -P EmbedClass.cmake
file(READ ${CLASS} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
file(WRITE ${OUTPUT} "#include \"contention/parkHookClass.h\"

namespace agent {

const std::uint8_t kParkHookBytes[] = {${bytes}};
const std::size_t kParkHookSize = sizeof kParkHookBytes;

}  // namespace agent
")
