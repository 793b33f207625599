# Finds the system packages that scripts/setup.sh installs.
find_package(PkgConfig REQUIRED)
find_package(ZLIB REQUIRED)
find_package(Threads REQUIRED)

# squish: its pkg-config file has an empty prefix, so find it by hand.
find_path(SQUISH_INCLUDE_DIR squish.h REQUIRED)
find_library(SQUISH_LIBRARY squish REQUIRED)
if(NOT TARGET zyl::squish)
  add_library(zyl::squish UNKNOWN IMPORTED)
  set_target_properties(zyl::squish PROPERTIES
    IMPORTED_LOCATION ${SQUISH_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${SQUISH_INCLUDE_DIR})
endif()

# The LZMA encoder ships as C sources only; build them here with our LzmaCompress wrapper.
# LzmaEnc.c is compiled inside lzmaResume.c, which copies and resumes its encoder state.
find_path(LZMASDK_INCLUDE_DIR NAMES lzma/LzmaEnc.h lzma/7zVersion.h REQUIRED)
set(LZMASDK_DIR "${LZMASDK_INCLUDE_DIR}/lzma")
if(NOT TARGET zyl_lzmasdk)
  add_library(zyl_lzmasdk STATIC
    ${LZMASDK_DIR}/LzFind.c ${LZMASDK_DIR}/LzmaDec.c
    ${CMAKE_CURRENT_LIST_DIR}/../deps/lzmaLib/lzmaLib.c
    ${CMAKE_CURRENT_LIST_DIR}/../deps/lzmaLib/lzmaResume.c)
  target_compile_definitions(zyl_lzmasdk PRIVATE _7ZIP_ST)
  target_compile_options(zyl_lzmasdk PRIVATE -w)
  target_include_directories(zyl_lzmasdk PUBLIC ${CMAKE_CURRENT_LIST_DIR}/../deps/lzmaLib)
endif()

if(ZYL_BUILD_TESTS)
  find_package(GTest 1.12 REQUIRED CONFIG)
  include(GoogleTest)
endif()
if(ZYL_BUILD_BENCH)
  find_package(benchmark 1.7 REQUIRED CONFIG)
endif()
# FFmpeg's libraries serve the host's media source and the tests that read real clips.
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libavfilter libavutil libswscale
  libswresample)
pkg_check_modules(PNG REQUIRED IMPORTED_TARGET libpng)
