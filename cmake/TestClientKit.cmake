# The client kit as a client meets it: installs the build, builds examples/ against the installed
# package alone, and runs the example.
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... [-DTOOLCHAIN=...] [-DEMULATOR=a|b] -P TestClientKit.cmake
set(kit ${BUILD_DIR}/kit-install)
set(example ${BUILD_DIR}/kit-example)
file(REMOVE_RECURSE ${kit} ${example} ${BUILD_DIR}/kit-archive)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${kit})
set(configure ${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples -B ${example} -G Ninja -DCMAKE_PREFIX_PATH=${kit}
    -DKronvale_DIR=${kit}/lib/cmake/Kronvale
    -DCMAKE_BUILD_TYPE=RelWithDebInfo)
if(TOOLCHAIN)
  list(APPEND configure -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
endif()
# A library built with sanitizers needs a client built with them.
load_cache(${BUILD_DIR} READ_WITH_PREFIX kit_ KV_SANITIZE)
if(kit_KV_SANITIZE)
  list(JOIN kit_KV_SANITIZE "," sanitizers)
  list(APPEND configure "-DCMAKE_CXX_FLAGS=-fsanitize=${sanitizers} -fno-omit-frame-pointer")
endif()
run(${configure})
run(${CMAKE_COMMAND} --build ${example})
string(REPLACE "|" ";" emulator "${EMULATOR}")
file(GLOB program ${example}/client ${example}/client.exe)
# A relative path: the same directory under Wine.
execute_process(COMMAND ${emulator} ${program} kit-archive WORKING_DIRECTORY ${BUILD_DIR}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${out}${err}")
if(NOT rc EQUAL 0 OR NOT out MATCHES "frame read back, key frame found")
  message(FATAL_ERROR "the example failed (${rc})")
endif()
# pkg-config's file names the same directories.
file(READ ${kit}/lib/pkgconfig/kronvale.pc pc)
if(NOT pc MATCHES "Libs: -L\\$\\{libdir\\} -lkronvale -lkronvale_guids")
  message(FATAL_ERROR "kronvale.pc does not link the library and the identifiers:\n${pc}")
endif()
file(REMOVE_RECURSE ${BUILD_DIR}/kit-archive)
# The README shows the example exactly, so that it cannot drift from what is tested here.
file(READ ${SOURCE_DIR}/examples/client.cpp example_text)
file(READ ${SOURCE_DIR}/README.md readme)
string(FIND "${readme}" "```cpp\n${example_text}```" at)
if(at EQUAL -1)
  message(FATAL_ERROR "README.md does not show examples/client.cpp exactly")
endif()
