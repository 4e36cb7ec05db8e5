#include "net/RequestEnd.h"

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/StreamSocket.h>

#include <memory>
#include <utility>

#include "net/AcceptedSocket.h"

namespace keltop::net {

namespace {

using Poco::Net::HTTPRequestHandler;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

AcceptedSocket* socketOf(HTTPServerRequest& request) {
  auto* const known = dynamic_cast<Poco::Net::HTTPServerRequestImpl*>(&request);
  return known == nullptr ? nullptr : dynamic_cast<AcceptedSocket*>(known->socket().impl());
}

/// Whether a request whose handler has read the body, where it has a length, leaves nothing to be sent. Where only the
/// end of the connection ends the body, as the library sees it, nobody knows.
bool endsByItself(const HTTPServerRequest& request) {
  if (request.getChunkedTransferEncoding()) {
    return false;
  }
  const std::string& method = request.getMethod();
  return request.hasContentLength() || method == HTTPServerRequest::HTTP_GET ||
         method == HTTPServerRequest::HTTP_HEAD || method == HTTPServerRequest::HTTP_DELETE;
}

/// A request that is being handled, as its socket sees it. Not whole until the handler has returned.
class HandledRequest {
 public:
  explicit HandledRequest(AcceptedSocket* socket) : socket_(socket) {
    if (socket_ != nullptr) {
      socket_->beginRequest();
    }
  }
  ~HandledRequest() {
    if (socket_ != nullptr) {
      socket_->endRequest(whole_);
    }
  }
  HandledRequest(const HandledRequest&) = delete;
  HandledRequest& operator=(const HandledRequest&) = delete;

  void setWhole(bool whole) noexcept { whole_ = whole; }

 private:
  AcceptedSocket* const socket_;
  bool whole_ = false;
};

class RequestEnd : public HTTPRequestHandler {
 public:
  explicit RequestEnd(std::unique_ptr<HTTPRequestHandler> handler) : handler_(std::move(handler)) {}

  void handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) override {
    HandledRequest handled(socketOf(request));
    handler_->handleRequest(request, response);
    handled.setWhole(endsByItself(request));
  }

 private:
  const std::unique_ptr<HTTPRequestHandler> handler_;
};

}  // namespace

RequestEndFactory::RequestEndFactory(Poco::Net::HTTPRequestHandlerFactory::Ptr factory)
    : factory_(std::move(factory)) {}

HTTPRequestHandler* RequestEndFactory::createRequestHandler(const HTTPServerRequest& request) {
  return std::make_unique<RequestEnd>(std::unique_ptr<HTTPRequestHandler>(factory_->createRequestHandler(request)))
      .release();
}

}  // namespace keltop::net
