#pragma once

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>

namespace keltop::view {

struct PageContext;

/// How many browsers may read events at a time, and the threads for everything else.
inline constexpr int kMostEventStreams = 32;
inline constexpr int kOtherThreads = 8;

/// Answers one request for the page or for what it shows; docs/view.md names the addresses.
class PageHandler : public Poco::Net::HTTPRequestHandler {
 public:
  /// The context must outlive the handler.
  explicit PageHandler(PageContext& context) : context_(context) {}
  ~PageHandler() override = default;
  void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override;

 private:
  PageContext& context_;
};

/// Makes one PageHandler for each request; the library owns it.
class PageHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  explicit PageHandlerFactory(PageContext& context) : context_(context) {}
  ~PageHandlerFactory() override = default;
  Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest& request) override;

 private:
  PageContext& context_;
};

}  // namespace keltop::view
