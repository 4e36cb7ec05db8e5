find_package(Threads REQUIRED)
find_package(Poco REQUIRED COMPONENTS Foundation Net NetSSL JSON)
