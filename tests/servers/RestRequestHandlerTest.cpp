#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "servers/RestRequestHandler.h"
#include "support/CapturedOutput.h"
#include "support/FailingStream.h"

namespace keltop {
namespace {

/// A response that is never sent: only its head is looked at.
class UnsentResponse : public Poco::Net::HTTPServerResponse {
 public:
  void sendContinue() override {}
  std::ostream& send() override { return nowhere_; }
  void sendFile(const std::string& /*path*/, const std::string& /*type*/) override {}
  void sendBuffer(const void* /*bytes*/, std::size_t /*length*/) override {}
  void redirect(const std::string& /*uri*/, HTTPStatus /*status*/) override {}
  void requireAuthentication(const std::string& /*realm*/) override {}
  [[nodiscard]] bool sent() const override { return false; }

 private:
  std::ostringstream nowhere_;
};

TEST(RestRequestHandler, printsStatusBeforeReasonAndVersionThenTheHeadersInOrder) {
  UnsentResponse response;
  response.setVersion("HTTP/1.1");
  response.setStatusAndReason(Poco::Net::HTTPResponse::HTTP_NOT_FOUND, "own words");
  response.set("B", "2");
  response.set("A", "1");
  response.set("B", "3");
  std::ostringstream console;
  printResponse(console, response);
  EXPECT_EQ(console.str(), "404 Not Found HTTP/1.1\r\nB: 3\r\nA: 1\r\n\r\n");
}

TEST(RestRequestHandler, reportsAFailureOfTheLibraryAndGoesOn) {
  UnsentResponse response;
  response.setVersion("HTTP/1.1");
  FailingStream console("200 OK HTTP/1.1\r\n\r\n");
  CapturedOutput output;
  EXPECT_NO_THROW(printResponse(console, response));
  EXPECT_EQ(output.take(), "RestRequestHandler::handleRequest(418) Read error: I/O error: why\n");
}

}  // namespace
}  // namespace keltop
