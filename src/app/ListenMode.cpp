#include "app/ListenMode.h"

#include <Poco/Exception.h>
#include <Poco/SharedPtr.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "app/SecureListening.h"
#include "net/ListeningSocket.h"
#include "net/Server.h"
#include "platform/KernelObjects.h"
#include "platform/Process.h"
#include "platform/StandardOutput.h"
#include "product/ConsoleStream.h"
#include "product/ParseNumber.h"
#include "product/ShutdownEvent.h"
#include "semaphore/EventSemaphore.h"
#include "servers/RawPacketConnection.h"
#include "servers/RawPacketConnectionFactory.h"
#include "servers/RestRequestHandlerFactory.h"
#include "trace/StopTrace.h"
#include "view/PageServer.h"
#include "view/TrafficLog.h"

namespace keltop {

namespace {

/// How long a stopped server's workers may take to finish what they are at.
constexpr auto kWorkersGrace = std::chrono::milliseconds(200);

/// How long the trace may take to end: somebody may keep its file's mutex, or have stopped reading what it echoes.
constexpr auto kTraceGrace = std::chrono::seconds(2);

std::unique_ptr<net::Server> makeServer(bool raw, const net::ServerOptions& options) {
  if (raw) {
    return std::make_unique<net::Server>(
        options, Poco::makeShared<RawPacketConnectionFactory>(),
        net::SocketTimeouts{.send = RawPacketConnection::timeout(), .receive = RawPacketConnection::timeout()});
  }
  return std::make_unique<net::Server>(options, Poco::makeShared<RestRequestHandlerFactory>());
}

/// The live page and what it shows, where it is asked for.
struct View {
  view::TrafficLog log;
  std::unique_ptr<view::PageServer> page{};

  void open(const view::Listener& listener, const std::string& port, ConsoleStream& console) {
    page = std::make_unique<view::PageServer>(log, listener, port);
    console << "View: http://127.0.0.1:" << page->port() << "/\r\n" << std::endl;
  }

  /// Whether every browser's connection has ended.
  [[nodiscard]] bool stop() { return page == nullptr || page->stop(kWorkersGrace); }
};

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

void announce(ConsoleStream& console, std::int32_t port, const std::optional<SecureListening>& secure) {
  console << "Press Ctrl-C to stop.\n"
          << "Listening on: " << port << "\r\n"
          << std::endl;
  if (secure) {
    secure->announce(console);
  }
}

/// What a failure of the library or of a file ends the listener with.
int showFailure(ConsoleStream& console, const Poco::Exception& error) {
  console << "Error: " << error.displayText() << std::endl;
  return 1;
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
  std::optional<SecureListening> secure;
  try {
    secure = SecureListening::fromSwitches(switches);
  } catch (const Poco::Exception& error) {
    return showFailure(console, error);
  }
  if (!platform::waitForOutput(shutdown.handle())) {
    platform::stopWaitingForOutput();  // told to stop while nobody read
  }
  announce(console, port, secure);
  const bool raw = findSwitch(switches, "RAW") != nullptr;
  const std::string* viewPort = findSwitch(switches, "VIEW");
  const auto shown = viewPort == nullptr ? nullptr : std::make_unique<View>();
  int exitCode = 0;
  std::unique_ptr<net::Server> server;
  try {
    // The socket takes the low 16 bits of whatever number was given, on purpose.
    server = makeServer(raw, {.port = static_cast<std::uint16_t>(port),
                              .watcher = shown ? &shown->log : nullptr,
                              .make = secure ? secure->makeSocket() : net::makePlainSocket});
    if (shown) {
      shown->open({raw, server->port()}, *viewPort, console);
    }
    server->start();
    const std::uint32_t ended = platform::waitForObject(shutdown.handle(), platform::kInfinite);
    server->stop();
    if (ended != platform::kWaitObject) {
      throw Poco::SystemException("Cannot wait for the shutdown event");
    }
  } catch (const Poco::Exception& error) {
    exitCode = showFailure(console, error);
  }
  const bool pageFinished = shown == nullptr || shown->stop();
  const bool finished = (server == nullptr || server->finish(kWorkersGrace)) && pageFinished;
  platform::stopWaitingForOutput();
  endTrace(exitCode);
  if (!finished) {
    // The library's thread pool would wait up to 10 s for each connection that somebody keeps open.
    platform::endProcess(exitCode);
  }
  return exitCode;
}

}  // namespace keltop
