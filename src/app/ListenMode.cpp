#include "app/ListenMode.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketImpl.h>
#include <Poco/Net/TCPServer.h>
#include <Poco/ThreadPool.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "platform/KernelObjects.h"
#include "platform/ListenPort.h"
#include "platform/Process.h"
#include "platform/StandardOutput.h"
#include "product/ConsoleStream.h"
#include "product/ParseNumber.h"
#include "product/ShutdownEvent.h"
#include "semaphore/EventSemaphore.h"
#include "servers/RawPacketConnectionFactory.h"
#include "servers/RestRequestHandlerFactory.h"
#include "trace/StopTrace.h"

namespace keltop {

namespace {

constexpr int kBacklog = 64;

/// How long a stopped server's workers may take to finish what they are at.
constexpr auto kWorkersGrace = std::chrono::milliseconds(200);
constexpr auto kWorkersLook = std::chrono::milliseconds(2);

/// How long the trace may take to end: somebody may keep its file's mutex, or have stopped reading what it echoes.
constexpr auto kTraceGrace = std::chrono::seconds(2);

/// Not ServerSocket(port): that also lets a second program listen on the port, unnoticed by both.
Poco::Net::ServerSocket listenOn(std::uint16_t port) {
  const Poco::Net::SocketAddress address(port);
  Poco::Net::ServerSocket socket;
  socket.init(address.af());
  platform::prepareListenSocket(static_cast<std::uintptr_t>(socket.impl()->sockfd()));
  socket.bind(address, false, false);
  socket.listen(kBacklog);
  return socket;
}

std::unique_ptr<Poco::Net::TCPServer> makeServer(bool raw, const Poco::Net::ServerSocket& socket) {
  if (raw) {
    return std::make_unique<Poco::Net::TCPServer>(Poco::makeShared<RawPacketConnectionFactory>(), socket);
  }
  return std::make_unique<Poco::Net::HTTPServer>(Poco::makeShared<RestRequestHandlerFactory>(), socket,
                                                 Poco::makeAuto<Poco::Net::HTTPServerParams>());
}

bool workersFinish() {
  const auto deadline = std::chrono::steady_clock::now() + kWorkersGrace;
  while (Poco::ThreadPool::defaultPool().used() > 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(kWorkersLook);
  }
  return true;
}

/// Ends the process where the trace does not end in time: what is left of it is its last line.
void endTrace(int exitCode) {
  try {
    const std::future<void> ended = std::async(std::launch::async, stopTrace);
    if (ended.wait_for(kTraceGrace) != std::future_status::ready) {
      platform::endProcess(exitCode);
    }
  } catch (const std::system_error&) {
    stopTrace();  // no thread to be had: then it takes as long as it takes
  }
}

void serve(bool raw, std::int32_t port, platform::ObjectHandle shutdown) {
  // The socket takes the low 16 bits of whatever number was given, on purpose.
  const Poco::Net::ServerSocket socket = listenOn(static_cast<std::uint16_t>(port));
  const std::unique_ptr<Poco::Net::TCPServer> server = makeServer(raw, socket);
  server->start();
  const std::uint32_t ended = platform::waitForObject(shutdown, platform::kInfinite);
  server->stop();
  if (ended != platform::kWaitObject) {
    throw Poco::SystemException("Cannot wait for the shutdown event");
  }
}

}  // namespace

int listen(const SwitchMap& switches) {
  ConsoleStream console;
  const std::string* portText = findSwitch(switches, "P");
  if (portText == nullptr) {
    console << "No port number specified." << std::endl;
    return 1;
  }
  const std::int32_t port = parseNumber(*portText);
  if (port < 1) {
    console << "Invalid port number specified." << std::endl;
    return 1;
  }
  SEMAPHORE::EventSemaphore shutdown;
  if (!shutdown.open(kShutdownEventName)) {
    console << "Server not running, shutting down." << std::endl;
    return 0;
  }
  if (!platform::waitForOutput(shutdown.handle())) {
    platform::stopWaitingForOutput();  // told to stop while nobody read
  }
  console << "Press Ctrl-C to stop.\n"
          << "Listening on: " << port << "\r\n"
          << std::endl;
  int exitCode = 0;
  try {
    serve(findSwitch(switches, "RAW") != nullptr, port, shutdown.handle());
  } catch (const Poco::Exception& error) {
    console << "Error: " << error.displayText() << std::endl;
    exitCode = 1;
  }
  const bool finished = workersFinish();
  platform::stopWaitingForOutput();
  endTrace(exitCode);
  if (!finished) {
    // The library's thread pool would wait up to 10 s for each connection that somebody keeps open.
    platform::endProcess(exitCode);
  }
  return exitCode;
}

}  // namespace keltop
