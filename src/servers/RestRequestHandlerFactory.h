#pragma once

#include <Poco/Net/HTTPRequestHandlerFactory.h>

namespace keltop {

/// Makes one RestRequestHandler for each request, whatever the request is; the library owns it.
class RestRequestHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  ~RestRequestHandlerFactory() override = default;
  Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest& request) override;
};

}  // namespace keltop
