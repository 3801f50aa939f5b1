# Makes a source of the files that tavix-settings-web serves as they are, each compressed once, when the program is built:
#
#   cmake -D OUTPUT=SOURCE -D ROOT=FOLDER -D DESCRIPTION=PATH -D GZIP=PROGRAM -P EmbedFiles.cmake
#
# What lies below ROOT is served by its name there, but for what tells about the files: licences, checksums and *.md.
# DESCRIPTION is served beside the interface. Of bytes that are the same the source is the same: gzip leaves the time
# out.
cmake_minimum_required(VERSION 3.16...3.25)

set(utf8 "; charset=utf-8")
set(type_html "text/html${utf8}")
set(type_css "text/css${utf8}")
set(type_js "text/javascript${utf8}")
set(type_txt "text/plain${utf8}")
set(type_json "application/json")
set(type_svg "image/svg+xml")
set(type_png "image/png")
set(type_ico "image/x-icon")

function(compress path bytes tag)
  execute_process(COMMAND ${GZIP} -9nc ${path} OUTPUT_FILE ${OUTPUT}.gz RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "gzip of ${path} failed: ${status}")
  endif()
  file(READ ${OUTPUT}.gz hex HEX)
  file(SHA256 ${OUTPUT}.gz hash)
  file(REMOVE ${OUTPUT}.gz)
  string(REGEX REPLACE "(..)" "0x\\1," hex "${hex}")
  string(REGEX REPLACE "(....................................................................................................)"
         "\\1\n" hex "${hex}")
  set(${bytes} "${hex}" PARENT_SCOPE)
  string(SUBSTRING ${hash} 0 32 hash)
  set(${tag} ${hash} PARENT_SCOPE)
endfunction()

set(arrays "")
set(entries "")
set(count 0)
function(embed name path)
  if(NOT name MATCHES "^[A-Za-z0-9_-][A-Za-z0-9._/-]*$")
    message(FATAL_ERROR "${name}: what is served has a plain name")
  endif()
  string(REGEX REPLACE "^.*\\." "" ending ${name})
  if(NOT DEFINED type_${ending})
    message(FATAL_ERROR "${name}: cmake/EmbedFiles.cmake has no type for files of this ending")
  endif()
  compress(${path} bytes tag)
  file(SHA256 ${path} plain)
  string(SUBSTRING ${plain} 0 32 plain)
  set(arrays "${arrays}const unsigned char kBytes${count}[] = {\n${bytes}};\n" PARENT_SCOPE)
  set(entries "${entries}    {\"${name}\", \"${type_${ending}}\", kBytes${count}, sizeof kBytes${count}, \"${tag}\", \"${plain}\"},\n"
      PARENT_SCOPE)
  math(EXPR next "${count} + 1")
  set(count ${next} PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE names RELATIVE ${ROOT} ${ROOT}/*)
list(SORT names)
foreach(name ${names})
  if(NOT name MATCHES "(^|/)(LICENSE|SHA256SUMS)[^/]*$|\\.(md|sha256)$")
    embed(${name} ${ROOT}/${name})
  endif()
endforeach()
embed(api/v1/openapi.json ${DESCRIPTION})

file(WRITE ${OUTPUT} "#include \"programs/web/http/EmbeddedFile.h\"

namespace tavix::web {

namespace {

${arrays}
constexpr EmbeddedFile kFiles[] = {
${entries}};

}  // namespace

EmbeddedFiles GetEmbeddedFiles() {
  return {std::begin(kFiles), std::end(kFiles)};
}

}  // namespace tavix::web
")
