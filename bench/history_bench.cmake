# history_bench starts velm-simpm and the real adminhostd with the velm plugin, from its own
# directory's build tree, and talks to the daemon over HTTP.
if(NOT TARGET PkgConfig::HTTPLIB)
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET GLOBAL cpp-httplib)
endif()
find_package(OpenSSL REQUIRED)
target_link_libraries(history_bench PRIVATE PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto)
# The controller's volumes are the same text the config tests use.
target_include_directories(history_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
add_dependencies(history_bench adminhostd adminhost_velm velm-simpm)
