// The bare loop of the raw comparison: accept one peer, receive one byte a call, put it to standard output.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

int main(int count, char** arguments) {
  if (count != 2) {
    return 1;
  }
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  const int reuse = 1;
  (void)::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(arguments[1])));
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 1) != 0) {
    return 1;
  }
  const int peer = ::accept(listener, nullptr, nullptr);
  char byte = 0;
  while (::recv(peer, &byte, 1, 0) == 1) {
    (void)std::putchar(byte);
  }
  (void)::close(peer);
  (void)::close(listener);
}
