#pragma once

#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/ThreadPool.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "view/Listener.h"
#include "view/Overviews.h"
#include "view/TrafficLog.h"

namespace keltop::view {

/// What the handlers of the page's requests share.
struct PageContext {
  TrafficLog& log;
  Overviews overviews;
  Listener listener;
  std::uint16_t port = 0;            ///< the page's own
  std::string run;                   ///< a word that no other run of the program has
  std::atomic<int> eventStreams{0};  ///< how many browsers read events now
};

/// Serves the live page on 127.0.0.1 with threads of its own.
class PageServer {
 public:
  /// `port` is a number, and a free port is taken when it is empty or 0; a port that cannot be had is an exception of
  /// the network library. The log must outlive the server.
  PageServer(TrafficLog& log, const Listener& listener, const std::string& port);
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  [[nodiscard]] std::uint16_t port() const noexcept { return context_.port; }

  /// Ends all connections; the log is closed. False where some have not ended in that time: then the process must be
  /// ended without destroying the server, which would wait for them.
  [[nodiscard]] bool stop(std::chrono::milliseconds grace);

 private:
  Poco::Net::ServerSocket socket_;
  PageContext context_;
  Poco::ThreadPool threads_;
  std::unique_ptr<Poco::Net::HTTPServer> server_;
};

}  // namespace keltop::view
