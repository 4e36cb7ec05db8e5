// The libraries are built without the sanitizer, which therefore does not see how they agree on an object's last use:
// the network library counts its references to connections and sockets in its own code, and the message library has
// threads of its own that never call back. What is hidden here is the end of what they own.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libzmq.so\n"
         "race:Poco::Net::TCPServer::run\n"
         "race:Poco::Net::SocketImpl::close\n"
         "race:Poco::Net::SocketImpl::~SocketImpl\n";
}
