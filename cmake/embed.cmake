# Writes a C++ source whose one function gives the bytes of a file, so that text kept in a
# file of its own (a style sheet, a script) is part of the program without being read at run
# time. Run at build time:
#   cmake -DINPUT=file -DOUTPUT=source.cpp -DNAMESPACE=ns -DFUNCTION=name -P embed.cmake
file(READ "${INPUT}" hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
file(WRITE "${OUTPUT}.tmp"
     "// Made from ${INPUT} at build time; edit that file instead.\n"
     "#include <string_view>\n"
     "namespace ${NAMESPACE} {\n"
     "std::string_view ${FUNCTION}()\n"
     "{\n"
     "    static constexpr unsigned char bytes[] = {${bytes}0};\n"
     "    return {reinterpret_cast<const char*>(bytes), sizeof bytes - 1};\n"
     "}\n"
     "} // namespace ${NAMESPACE}\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
