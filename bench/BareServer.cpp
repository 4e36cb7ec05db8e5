// The limit of the HTTP comparison: what a server costs that does no more than the system's calls. Threads accept, read
// once, append a formatted text to standard output, answer and close; no library, no parsing. Linux only.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr int kBacklog = 64;
constexpr int kThreads = 16;
constexpr std::string_view kAnswer =
    "HTTP/1.1 200 OK\r\nDate: Thu, 01 Jan 2026 00:00:00 GMT\r\nConnection: Close\r\nContent-Language: en\r\n"
    "User-Agent: bare\r\nAccess-Control-Allow-Origin: *\r\nLocation: 127.0.0.1:80\r\n\r\n";

std::string addressOf(const sockaddr_in& address) {
  std::array<char, INET_ADDRSTRLEN> text = {};
  (void)::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
  return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

void serve(int connection, const sockaddr_in& peer) {
  std::array<char, 4096> request = {};
  const ssize_t count = ::recv(connection, request.data(), request.size(), 0);
  if (count > 0) {
    sockaddr_in own = {};
    socklen_t length = sizeof own;
    (void)::getsockname(connection, reinterpret_cast<sockaddr*>(&own), &length);
    std::string text =
        "Connected:\n  Client: " + addressOf(peer) + "\n  Server: " + addressOf(own) + "\n\r\nRequest:\n";
    text.append(request.data(), static_cast<std::size_t>(count)).append("\r\nResponse:\n").append(kAnswer);
    (void)!::write(STDOUT_FILENO, text.data(), text.size());
    (void)::send(connection, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL);
  }
  ::close(connection);
}

void acceptForEver(int listening) {
  for (;;) {
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    const int connection = ::accept(listening, reinterpret_cast<sockaddr*>(&peer), &length);
    if (connection >= 0) {
      serve(connection, peer);
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    return 1;
  }
  const int listening = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(arguments[1])));
  if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listening, kBacklog) != 0) {
    return 1;
  }
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(acceptForEver, listening);
  }
  (void)std::getchar();  // until standard input ends
  std::quick_exit(0);
}
