#pragma once

#include <Poco/Net/HTTPRequestHandlerFactory.h>

namespace keltop::net {

/// Stands before the factory of an HTTP server's handlers and tells the sockets when a request is handled, and whether
/// its client may still be sending when it has been answered.
class RequestEndFactory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  explicit RequestEndFactory(Poco::Net::HTTPRequestHandlerFactory::Ptr factory);
  Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest& request) override;

 private:
  Poco::Net::HTTPRequestHandlerFactory::Ptr factory_;
};

}  // namespace keltop::net
