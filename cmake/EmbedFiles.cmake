# cmake -DOUTPUT=FILE.cpp -DFILES=A;B -P EmbedFiles.cmake: writes a source that holds the files, without what only their
# writers need: blanks at the beginnings of lines, and lines of JavaScript that are comments.
set(constants "")
set(table "")
set(number 0)
foreach(file IN LISTS FILES)
  get_filename_component(name "${file}" NAME)
  file(READ "${file}" text)
  string(REGEX REPLACE "\n +" "\n" text "${text}")
  if(name MATCHES "[.]js$")
    string(REGEX REPLACE "\n(//|/[*][*]|[*] |[*]/)[^\n]*" "" text "\n${text}")
  endif()
  string(HEX "${text}" bytes)
  string(LENGTH "${bytes}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "(..)" "\\\\x\\1" text "${bytes}")
  # A line for each eight bytes.
  string(REGEX REPLACE "((\\\\x..)(\\\\x..)?(\\\\x..)?(\\\\x..)?(\\\\x..)?(\\\\x..)?(\\\\x..)?(\\\\x..)?)" "    \"\\1\"\n" text "${text}")
  string(APPEND constants "constexpr char kFile${number}[] =\n${text}    \"\";\n")
  string(APPEND table "    PageFile{\"${name}\", {kFile${number}, ${size}}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE "${OUTPUT}" "#include \"view/PageFiles.h\"

#include <array>

namespace keltop::view {

namespace {

${constants}
constexpr std::array kFiles{
${table}};

}  // namespace

std::span<const PageFile> pageFiles() noexcept { return kFiles; }

}  // namespace keltop::view
")
