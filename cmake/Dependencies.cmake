find_package(Threads REQUIRED)
# Before Poco, whose package looks for it in its own folder only.
if(WIN32)
  set(OPENSSL_USE_STATIC_LIBS ON)
endif()
find_package(OpenSSL REQUIRED)
find_package(Poco REQUIRED COMPONENTS Foundation Net NetSSL JSON)

# The library ships a package of its own on some systems and a pkg-config file on the others.
find_package(ZeroMQ CONFIG QUIET)
if(TARGET libzmq-static)
  add_library(keltop_zeromq ALIAS libzmq-static)
elseif(TARGET libzmq)
  add_library(keltop_zeromq ALIAS libzmq)
else()
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(ZeroMQ REQUIRED IMPORTED_TARGET GLOBAL libzmq)
  add_library(keltop_zeromq ALIAS PkgConfig::ZeroMQ)
endif()
