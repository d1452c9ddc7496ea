# The module's resources from their single sources, made when CMake configures (a change to any
# source file below configures again):
#   Kronvale.rc                the REGISTRY lines name each registrar script by id and file;
#   scripts/*.rgs              the scripts;
#   strings/StringTable.txt    the string table, "LANGUAGE ID TEXT" per line.
# Outputs, in KV_FRAME_GENERATED_DIR:
#   KronvaleStrings.rc         STRINGTABLE blocks, included by Kronvale.rc (Windows);
#   ResourceTable.cpp          the scripts' bytes and the strings as UTF-16 literals (Linux), for
#                              frame/ResourceTable.h.
# kv_frame_resources(target) compiles Kronvale.rc into a Windows target (the DLL, a test program);
# the frame code finds the resources in whichever module holds it.

# Cached so that kv_frame_resources sees them from any directory.
set(KV_FRAME_DIR ${CMAKE_CURRENT_LIST_DIR} CACHE INTERNAL "")
set(KV_FRAME_GENERATED_DIR ${CMAKE_BINARY_DIR}/frame-generated CACHE INTERNAL "")
file(MAKE_DIRECTORY ${KV_FRAME_GENERATED_DIR})

# Writes a file only when its text changes, so that nothing rebuilds after a plain reconfigure.
function(kv_frame_write_if_changed path text)
  file(WRITE ${path}.tmp "${text}")
  configure_file(${path}.tmp ${path} COPYONLY)
  file(REMOVE ${path}.tmp)
endfunction()

# ---- Registrar scripts ----------------------------------------------------------------------------

set(kv_rc ${KV_FRAME_DIR}/Kronvale.rc)
file(READ ${kv_rc} kv_rc_text)
string(REGEX MATCHALL "\n[ \t]*[0-9]+[ \t]+REGISTRY[ \t]+\"[^\"\n]+\"" kv_registry_lines "\n${kv_rc_text}")
if(NOT kv_registry_lines)
  message(FATAL_ERROR "${kv_rc} names no REGISTRY resource")
endif()
set(kv_script_files)
set(kv_script_arrays "")
set(kv_script_entries "")
foreach(line IN LISTS kv_registry_lines)
  string(REGEX REPLACE "^\n[ \t]*([0-9]+)[ \t]+REGISTRY[ \t]+\"([^\"]+)\"$" "\\1;\\2" parts "${line}")
  list(GET parts 0 id)
  list(GET parts 1 relative)
  set(path ${KV_FRAME_DIR}/${relative})
  if(NOT EXISTS ${path})
    message(FATAL_ERROR "Registrar script ${path} (resource ${id}) not found")
  endif()
  list(APPEND kv_script_files ${path})
  file(READ ${path} hex HEX)
  string(LENGTH "${hex}" cch)
  math(EXPR cb "${cch} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  # Lines of 16 bytes keep the generated file readable.
  string(REPEAT "0x..," 16 kv_sixteen)
  string(REGEX REPLACE "(${kv_sixteen})" "\\1\n    " bytes "${bytes}")
  string(APPEND kv_script_arrays "// ${relative}\nconst unsigned char g_abScript${id}[] = {\n    ${bytes}0x00};\n")
  string(APPEND kv_script_entries "    {${id}, g_abScript${id}, ${cb}},\n")
endforeach()

# ---- String table ---------------------------------------------------------------------------------

set(kv_strings ${KV_FRAME_DIR}/strings/StringTable.txt)
file(READ ${kv_strings} kv_strings_text)
if(kv_strings_text MATCHES ";")
  message(FATAL_ERROR "${kv_strings}: no semicolon may appear, not even in a comment")
endif()
string(REPLACE "\r\n" "\n" kv_strings_text "${kv_strings_text}")
string(REPLACE "\n" ";" kv_string_lines "${kv_strings_text}")
set(kv_languages)
foreach(line IN LISTS kv_string_lines)
  if(line STREQUAL "" OR line MATCHES "^#")
    continue()
  endif()
  if(NOT line MATCHES "^([0-9]+) ([0-9]+) (.*)$")
    message(FATAL_ERROR "${kv_strings}: not \"LANGUAGE ID TEXT\": ${line}")
  endif()
  set(language ${CMAKE_MATCH_1})
  set(id ${CMAKE_MATCH_2})
  set(text "${CMAKE_MATCH_3}")
  if(language GREATER 65535 OR id GREATER 65535)
    message(FATAL_ERROR "${kv_strings}: language or id out of range: ${line}")
  endif()
  if(NOT language IN_LIST kv_languages)
    list(APPEND kv_languages ${language})
    set(kv_strings_${language} "")
  endif()
  # resource compiler: a quote is doubled, a backslash escapes
  string(REPLACE "\\" "\\\\" rc_text "${text}")
  string(REPLACE "\"" "\"\"" rc_text "${rc_text}")
  string(APPEND kv_strings_${language} "  ${id} \"${rc_text}\"\n")
  # C++ u"" literal: the compiler turns the UTF-8 source into UTF-16 code units
  string(REPLACE "\\" "\\\\" cpp_text "${text}")
  string(REPLACE "\"" "\\\"" cpp_text "${cpp_text}")
  string(APPEND kv_string_entries "    {${language}, ${id}, u\"${cpp_text}\"},\n")
endforeach()

set(kv_strings_rc "// Made by the build from strings/StringTable.txt; do not edit.\n#pragma code_page(65001)\n")
foreach(language IN LISTS kv_languages)
  # LANGUAGE takes the primary language (low 10 bits) and the sublanguage (high 6 bits).
  math(EXPR primary "${language} & 1023" OUTPUT_FORMAT HEXADECIMAL)
  math(EXPR sub "${language} >> 10" OUTPUT_FORMAT HEXADECIMAL)
  string(APPEND kv_strings_rc "\nLANGUAGE ${primary}, ${sub}\nSTRINGTABLE\nBEGIN\n${kv_strings_${language}}END\n")
endforeach()
kv_frame_write_if_changed(${KV_FRAME_GENERATED_DIR}/KronvaleStrings.rc "${kv_strings_rc}")

kv_frame_write_if_changed(${KV_FRAME_GENERATED_DIR}/ResourceTable.cpp
"// Made by the build from frame/Kronvale.rc, the registrar scripts and strings/StringTable.txt;
// do not edit.
#include \"frame/ResourceTable.h\"

namespace NSFrame {
namespace NSResourceTable {

namespace {
${kv_script_arrays}}  // namespace

const SScript g_aScripts[] = {
${kv_script_entries}};
const size_t g_cScripts = sizeof(g_aScripts) / sizeof(g_aScripts[0]);

const SString g_aStrings[] = {
${kv_string_entries}};
const size_t g_cStrings = sizeof(g_aStrings) / sizeof(g_aStrings[0]);

}  // namespace NSResourceTable
}  // namespace NSFrame
")

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${kv_rc} ${kv_strings} ${kv_script_files})
set(KV_FRAME_RESOURCE_DEPENDS ${kv_rc} ${kv_script_files} ${KV_FRAME_GENERATED_DIR}/KronvaleStrings.rc CACHE INTERNAL "")

# Compiles the resources into a Windows target. windres finds the scripts beside Kronvale.rc and
# the generated string table through the include path.
function(kv_frame_resources target)
  if(NOT WIN32)
    return()
  endif()
  target_sources(${target} PRIVATE ${KV_FRAME_DIR}/Kronvale.rc)
  target_include_directories(${target} PRIVATE $<$<COMPILE_LANGUAGE:RC>:${KV_FRAME_GENERATED_DIR}>)
  set_property(SOURCE ${KV_FRAME_DIR}/Kronvale.rc TARGET_DIRECTORY ${target} APPEND PROPERTY OBJECT_DEPENDS
               ${KV_FRAME_RESOURCE_DEPENDS})
endfunction()
