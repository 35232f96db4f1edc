# Link dependencies of the library, pulled in by the top CMakeLists once the
# library targets exist.

# libopus (the Opus decoder behind code 64), found through pkg-config.
find_package(PkgConfig REQUIRED)
pkg_check_modules(OPUS REQUIRED IMPORTED_TARGET opus)
# The object library needs the headers; the shared library links libopus in;
# users of the static library (tool, tests, bench, fuzz) need it at link time.
target_link_libraries(quillon_objects PRIVATE PkgConfig::OPUS)
target_link_libraries(quillon PRIVATE PkgConfig::OPUS)
target_link_libraries(quillon_static PUBLIC PkgConfig::OPUS)
