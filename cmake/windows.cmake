# The 32-bit Windows build: quillon.dll with the historical export table and
# its import library. Included by the top CMakeLists when WIN32 (cross-built
# with cmake/toolchain-i686-w64-mingw32.cmake, see tools/scripts/build-windows.sh).

# quillon.dll, not libquillon.dll. The export table is the module-definition
# file alone (nothing is marked dllexport, see include/quillon/platform.h).
set_target_properties(quillon PROPERTIES PREFIX "" IMPORT_PREFIX "" IMPORT_SUFFIX ".lib")
target_sources(quillon PRIVATE ${PROJECT_SOURCE_DIR}/src/api/quillon.def)

# The host information exports use Winsock, the remote desktop session API
# and the security API's user-name query (advapi32 comes by default).
target_link_libraries(quillon PRIVATE ws2_32 wtsapi32 secur32)
target_link_libraries(quillon_static PUBLIC ws2_32 wtsapi32 secur32)

# The import library the linker writes for a definition file with aliases
# does not work for callers (it expects them to use the export names as
# symbols), so it is replaced by one made by dlltool from a second
# definition file mapping each caller's symbol to the export name.
if(NOT CMAKE_DLLTOOL)
  find_program(CMAKE_DLLTOOL NAMES ${CMAKE_C_COMPILER_TARGET}-dlltool i686-w64-mingw32-dlltool dlltool REQUIRED)
endif()
add_custom_command(TARGET quillon POST_BUILD
  COMMAND ${CMAKE_DLLTOOL} --input-def ${PROJECT_SOURCE_DIR}/src/api/quillon_implib.def
          --dllname quillon.dll --output-lib $<TARGET_LINKER_FILE:quillon>
  COMMENT "Import library for quillon.dll"
  VERBATIM)
set_property(TARGET quillon APPEND PROPERTY LINK_DEPENDS
  ${PROJECT_SOURCE_DIR}/src/api/quillon.def ${PROJECT_SOURCE_DIR}/src/api/quillon_implib.def)
