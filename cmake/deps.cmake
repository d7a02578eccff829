# Third-party libraries. OpenSSL 3.5 and curl come from the bootstrap's cache
# (static, so each process carries exactly one OpenSSL); the rest are Debian's.
set(TOLVANGER_DEPS_PREFIX "" CACHE PATH "Prefix holding the bootstrap's OpenSSL 3.5 and curl")
if(NOT TOLVANGER_DEPS_PREFIX OR NOT EXISTS "${TOLVANGER_DEPS_PREFIX}/lib/libcrypto.a")
  message(FATAL_ERROR "Set TOLVANGER_DEPS_PREFIX to the prefix printed by scripts/bootstrap.sh")
endif()

find_package(Threads REQUIRED)

add_library(tolvanger_openssl_crypto STATIC IMPORTED GLOBAL)
set_target_properties(tolvanger_openssl_crypto PROPERTIES
  IMPORTED_LOCATION "${TOLVANGER_DEPS_PREFIX}/lib/libcrypto.a"
  INTERFACE_INCLUDE_DIRECTORIES "${TOLVANGER_DEPS_PREFIX}/include"
  INTERFACE_LINK_LIBRARIES "Threads::Threads;${CMAKE_DL_LIBS}")
add_library(tolvanger_openssl_ssl STATIC IMPORTED GLOBAL)
set_target_properties(tolvanger_openssl_ssl PROPERTIES
  IMPORTED_LOCATION "${TOLVANGER_DEPS_PREFIX}/lib/libssl.a"
  INTERFACE_LINK_LIBRARIES tolvanger_openssl_crypto)
add_library(tolvanger_curl STATIC IMPORTED GLOBAL)
set_target_properties(tolvanger_curl PROPERTIES
  IMPORTED_LOCATION "${TOLVANGER_DEPS_PREFIX}/lib/libcurl.a"
  INTERFACE_COMPILE_DEFINITIONS CURL_STATICLIB
  INTERFACE_LINK_LIBRARIES tolvanger_openssl_ssl)

find_package(nlohmann_json 3.10 REQUIRED)
find_package(ICU REQUIRED COMPONENTS uc)
find_package(ZLIB REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(QRENCODE REQUIRED IMPORTED_TARGET libqrencode)
