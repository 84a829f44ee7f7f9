# Every dependency comes from a Debian package; nothing is downloaded.
find_package(Threads REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(ICU 72 REQUIRED COMPONENTS uc i18n)
find_package(CURL REQUIRED)
find_package(CLI11 REQUIRED)
find_package(PkgConfig REQUIRED)

# Standalone Asio ships headers only and no CMake package.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(tavra_asio INTERFACE)
target_include_directories(tavra_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_link_libraries(tavra_asio INTERFACE Threads::Threads)

if(NOT APPLE)
  pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
endif()
