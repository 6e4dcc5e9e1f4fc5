# Included from tests/CMakeLists.txt after the per-folder test programs are made.
# adminhost_echo.so: a test plugin, kept out of lib/ so that the daemon's default plugin
# directory (and make install) never sees it.
add_library(adminhost_echo MODULE ${CMAKE_CURRENT_LIST_DIR}/echo_plugin.cc)
set_target_properties(adminhost_echo PROPERTIES PREFIX "" CXX_VISIBILITY_PRESET hidden
                      LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/test-plugins)
target_link_libraries(adminhost_echo PRIVATE velm_adminhost)
target_link_options(adminhost_echo PRIVATE -Wl,--exclude-libs,ALL ${VELM_MODULE_NO_UNDEFINED}
                    -Wl,--version-script=${PROJECT_SOURCE_DIR}/src/core/plugin.map)

if(TARGET e2e_tests)
  if(NOT TARGET PkgConfig::HTTPLIB)
    pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET GLOBAL cpp-httplib)
  endif()
  find_package(OpenSSL REQUIRED)
  # The --server transport is tested here against the real daemon.
  target_sources(e2e_tests PRIVATE ${PROJECT_SOURCE_DIR}/src/tools/velmadmin_remote.cc)
  target_link_libraries(e2e_tests PRIVATE PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto)
  target_compile_definitions(e2e_tests PRIVATE VELM_TEST_PLUGIN_DIR="${CMAKE_BINARY_DIR}/test-plugins")
  add_dependencies(e2e_tests adminhostd adminhost_velm adminhost_echo velmadmin)
endif()
