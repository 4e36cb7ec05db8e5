#include "view/PageServer.h"

#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketImpl.h>
#include <Poco/Timespan.h>
#include <Poco/UUIDGenerator.h>

#include <thread>

#include "platform/Sockets.h"
#include "view/PageHandler.h"

namespace keltop::view {

namespace {

constexpr int kBacklog = 64;
constexpr int kFewestThreads = 2;
constexpr int kIdleSeconds = 10;

/// The threads do little and call nothing deep.
constexpr int kStackBytes = 512 * 1024;

/// How long a browser may take to send its request, or to take some of an answer.
constexpr int kPatienceSeconds = 5;

constexpr auto kLook = std::chrono::milliseconds(2);

Poco::Net::ServerSocket listenOnLoopback(const std::string& port) {
  const Poco::Net::SocketAddress address("127.0.0.1", port.empty() ? "0" : port);
  Poco::Net::ServerSocket socket;
  socket.init(address.af());
  const bool reuse = platform::prepareListenSocket(static_cast<platform::SocketNumber>(socket.impl()->sockfd()));
  socket.bind(address, reuse, false);
  socket.setBlocking(true);  // accepted sockets may inherit it, and the library's server expects them to wait
  socket.listen(kBacklog);
  return socket;
}

Poco::Net::HTTPServerParams::Ptr makeParams() {
  auto params = Poco::makeAuto<Poco::Net::HTTPServerParams>();
  params->setMaxThreads(kMostEventStreams + kOtherThreads);
  params->setMaxQueued(kBacklog);
  params->setKeepAlive(false);  // an idle connection would keep a thread
  params->setTimeout(Poco::Timespan(kPatienceSeconds, 0));
  params->setSoftwareVersion("");
  return params;
}

}  // namespace

PageServer::PageServer(TrafficLog& log, const Listener& listener, const std::string& port)
    : socket_(listenOnLoopback(port)),
      context_{log,
               {log, listener.raw},
               listener,
               socket_.address().port(),
               Poco::UUIDGenerator::defaultGenerator().createRandom().toString()},
      threads_("view", kFewestThreads, kMostEventStreams + kOtherThreads, kIdleSeconds, kStackBytes),
      server_(std::make_unique<Poco::Net::HTTPServer>(Poco::makeShared<PageHandlerFactory>(context_), threads_, socket_,
                                                      makeParams())) {
  server_->start();
}

PageServer::~PageServer() {
  context_.log.close();
  server_->stopAll(true);
  threads_.joinAll();  // a thread that has been given a connection and not begun with it would lose it
}

bool PageServer::stop(std::chrono::milliseconds grace) {
  const auto deadline = std::chrono::steady_clock::now() + grace;
  context_.log.close();
  server_->stopAll(true);
  while (threads_.used() > 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(kLook);
  }
  return true;
}

}  // namespace keltop::view
