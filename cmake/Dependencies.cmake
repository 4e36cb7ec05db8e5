find_package(Threads REQUIRED)
# Before Poco, whose package looks for it in its own folder only.
if(WIN32)
  set(OPENSSL_USE_STATIC_LIBS ON)
endif()
find_package(OpenSSL REQUIRED)
find_package(Poco REQUIRED COMPONENTS Foundation Net)
