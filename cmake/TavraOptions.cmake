# Compiler flags shared by every target of the project, applied through one
# interface library so that third-party code found by find_package is not
# compiled with our warning set.
add_library(tavra_options INTERFACE)
target_compile_options(tavra_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # sd-bus's SD_BUS_ERROR_NULL and similar initializers are C compound
  # literals, which clang flags in C++ although they are well defined there.
  target_compile_options(tavra_options INTERFACE -Wno-c99-extensions)
endif()
if(TAVRA_WERROR)
  target_compile_options(tavra_options INTERFACE -Werror)
endif()
# Asio picks aligned_alloc or its own allocator from libstdc++'s macros, so a
# unit that includes Asio before any standard header could disagree with the
# rest of the program about how handler memory is freed. Pin the choice.
add_compile_definitions(ASIO_STANDALONE ASIO_NO_DEPRECATED ASIO_DISABLE_STD_ALIGNED_ALLOC)

if(TAVRA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

if(TAVRA_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "The fuzz targets need clang (CC=clang CXX=clang++)")
  endif()
  # libFuzzer steers by the coverage of the code under test, and that code
  # (the decoders) lives in the libraries, so they carry the coverage hooks
  # and the sanitizers too; only the fuzz programs link libFuzzer itself.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(TAVRA_HARDEN)
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong -fPIE)
  add_link_options(-pie -Wl,-z,relro,-z,now)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()

# Collects the sources of one library folder: the shared files, plus the
# backend folder of the platform being built. Backends are chosen here, not
# by #ifdef in the sources.
if(APPLE)
  set(TAVRA_OS_DIR macos)
else()
  set(TAVRA_OS_DIR linux)
endif()

function(tavra_sources out dir)
  file(GLOB shared CONFIGURE_DEPENDS "${dir}/*.cpp")
  file(GLOB backend CONFIGURE_DEPENDS "${dir}/${TAVRA_OS_DIR}/*.cpp")
  set(${out} ${shared} ${backend} PARENT_SCOPE)
endfunction()
