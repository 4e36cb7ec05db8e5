#include "servers/RestRequestHandlerFactory.h"

#include <memory>

#include "servers/RestRequestHandler.h"

namespace keltop {

Poco::Net::HTTPRequestHandler* RestRequestHandlerFactory::createRequestHandler(
    const Poco::Net::HTTPServerRequest& /*request*/) {
  return std::make_unique<RestRequestHandler>().release();
}

}  // namespace keltop
