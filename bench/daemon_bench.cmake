# daemon_bench drives the real adminhostd and the velm plugin, and a bare cpp-httplib server.
if(NOT TARGET PkgConfig::HTTPLIB)
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET GLOBAL cpp-httplib)
endif()
find_package(OpenSSL REQUIRED)
target_link_libraries(daemon_bench PRIVATE velm_host PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto)
target_compile_definitions(daemon_bench PRIVATE VELM_BINARY_DIR="${CMAKE_BINARY_DIR}")
add_dependencies(daemon_bench adminhostd adminhost_velm)
# Its second daemon serves a SAN of velm-simpm, laid out with the config tests' volume text.
add_dependencies(daemon_bench velm-simpm)
target_include_directories(daemon_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
