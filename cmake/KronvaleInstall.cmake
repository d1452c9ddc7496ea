# The client kit that `cmake --install` lays out: the library, the interface header, the
# identifiers, a CMake package (find_package(Kronvale) gives Kronvale::kronvale) and a pkg-config
# file. A client includes one header directory and links the library (plus the identifiers'
# small static library, which the package and pkg-config add by themselves).
#
#   Linux:   lib/libkronvale.so, lib/libkronvale_guids.a, include/kronvale-sdk/ (kronvale/kronvale.h,
#            kronvale/KronvaleResults.h, kronvale/KronvaleClient.h, kronvale/kronvale_i.c and the stand-ins for the Windows
#            SDK headers the interface header includes)
#   Windows: bin/kronvale.dll, lib/libkronvale.dll.a, lib/libkronvale_guids.a, include/kronvale/
#            (kronvale.h, KronvaleResults.h, kronvale_i.c)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(kv_kit_gen ${KV_GENERATED_DIR}/kronvale)
if(WIN32)
  set(kv_kit_includedir ${CMAKE_INSTALL_INCLUDEDIR})
else()
  set(kv_kit_includedir ${CMAKE_INSTALL_INCLUDEDIR}/kronvale-sdk)
endif()

# The identifiers alone, with no dependency: what a client links beside the library.
add_library(kronvale_guids STATIC ${kv_kit_gen}/kronvale_i.c)
add_dependencies(kronvale_guids kv_idl_generated)
target_include_directories(kronvale_guids PRIVATE ${KV_GENERATED_DIR})
if(NOT WIN32)
  set_source_files_properties(${kv_kit_gen}/kronvale_i.c PROPERTIES LANGUAGE CXX)
  target_sources(kronvale_guids PRIVATE ${CMAKE_SOURCE_DIR}/src/com/linux/Guids.cpp)
  target_include_directories(kronvale_guids PRIVATE ${CMAKE_SOURCE_DIR}/include/kronvale/linux)
endif()
set_target_properties(kronvale_guids PROPERTIES ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

# The library's run path is the same built and installed ($ORIGIN), so installing copies it as is.
if(NOT WIN32)
  set_target_properties(kronvale PROPERTIES BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "$ORIGIN")
endif()
install(TARGETS kronvale kronvale_guids
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${kv_kit_gen}/kronvale.h ${kv_kit_gen}/kronvale_i.c ${CMAKE_SOURCE_DIR}/include/kronvale/KronvaleResults.h ${CMAKE_SOURCE_DIR}/include/kronvale/KronvaleClient.h
        DESTINATION ${kv_kit_includedir}/kronvale)
if(NOT WIN32)
  file(GLOB kv_kit_sdk ${CMAKE_SOURCE_DIR}/include/kronvale/linux/*.h)
  install(FILES ${kv_kit_sdk} DESTINATION ${kv_kit_includedir})
  install(FILES ${CMAKE_SOURCE_DIR}/src/com/ComBase.h DESTINATION ${kv_kit_includedir}/com)
  install(FILES ${CMAKE_SOURCE_DIR}/src/platform/wintypes.h DESTINATION ${kv_kit_includedir}/platform)
endif()

set(KV_KIT_INCLUDEDIR ${kv_kit_includedir})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/KronvaleConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/kit/KronvaleConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kronvale
                              PATH_VARS KV_KIT_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/kit/KronvaleConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/kit/KronvaleConfig.cmake ${CMAKE_BINARY_DIR}/kit/KronvaleConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kronvale)

if(WIN32)
  set(KV_KIT_LIBS "-lkronvale -lkronvale_guids -lole32 -loleaut32 -luuid")
else()
  set(KV_KIT_LIBS "-lkronvale -lkronvale_guids")
endif()
configure_file(${CMAKE_SOURCE_DIR}/cmake/kronvale.pc.in ${CMAKE_BINARY_DIR}/kit/kronvale.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kit/kronvale.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The kit in CI: installed, the example built against it and run (under Wine for Windows).
if(WIN32)
  string(REPLACE ";" "|" kv_kit_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
  set(kv_kit_toolchain ${CMAKE_TOOLCHAIN_FILE})
else()
  set(kv_kit_emulator "")
  set(kv_kit_toolchain "")
endif()
add_test(NAME kronvale_client_kit
         COMMAND ${CMAKE_COMMAND} -DBUILD_DIR=${CMAKE_BINARY_DIR} -DSOURCE_DIR=${CMAKE_SOURCE_DIR}
                 -DTOOLCHAIN=${kv_kit_toolchain} -DEMULATOR=${kv_kit_emulator} -P ${CMAKE_SOURCE_DIR}/cmake/TestClientKit.cmake)
