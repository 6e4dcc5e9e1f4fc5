# velmadmin --server talks HTTP(S) through cpp-httplib.
if(NOT TARGET PkgConfig::HTTPLIB)
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET GLOBAL cpp-httplib)
endif()
find_package(OpenSSL REQUIRED)
target_link_libraries(velmadmin PRIVATE PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto)
