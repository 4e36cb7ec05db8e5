find_package(Threads REQUIRED)
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
