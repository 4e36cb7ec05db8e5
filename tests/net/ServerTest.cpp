#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/TCPServerConnection.h>
#include <Poco/Net/TCPServerConnectionFactory.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "net/Server.h"
#include "support/TrafficLog.h"

namespace keltop::net {
namespace {

using Poco::Net::SocketAddress;
using Poco::Net::StreamSocket;
using Poco::Net::TCPServerConnection;

constexpr auto kPatience = std::chrono::seconds(20);

/// Sends back what it receives.
class Echo : public TCPServerConnection {
 public:
  using TCPServerConnection::TCPServerConnection;
  void run() override {
    std::string text(1000, '\0');
    for (int count = 0; (count = socket().receiveBytes(text.data(), 1000)) > 0;) {
      socket().sendBytes(text.data(), count);
    }
  }
};

class EchoFactory : public Poco::Net::TCPServerConnectionFactory {
 public:
  TCPServerConnection* createConnection(const StreamSocket& socket) override {
    return std::make_unique<Echo>(socket).release();
  }
};

/// Answers nothing but its head, and fails where the path says so.
class Answer : public Poco::Net::HTTPRequestHandler {
 public:
  void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override {
    if (request.getURI() == "/fail") {
      throw Poco::InvalidArgumentException("why");
    }
    response.set("Connection", "close");
    response.send();
  }
};

class AnswerFactory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest& /*request*/) override {
    return std::make_unique<Answer>().release();
  }
};

std::unique_ptr<Server> echoServer(const ServerOptions& options = {}) {
  auto server = std::make_unique<Server>(options, Poco::makeShared<EchoFactory>(), SocketTimeouts{});
  server->start();
  return server;
}

StreamSocket connectTo(const Server& server) {
  StreamSocket client(SocketAddress("127.0.0.1", server.port()));
  client.setReceiveTimeout(Poco::Timespan(20, 0));
  return client;
}

std::string ask(StreamSocket& client, const std::string& text) {
  client.sendBytes(text.data(), static_cast<int>(text.size()));
  std::string answer(1000, '\0');
  answer.resize(static_cast<std::size_t>(client.receiveBytes(answer.data(), 1000)));
  return answer;
}

TEST(Server, servesManyAtOnceAndOneAfterTheOther) {
  const std::unique_ptr<Server> server = echoServer();
  std::vector<StreamSocket> clients;
  for (int i = 0; i < 100; ++i) {
    clients.push_back(connectTo(*server));
    EXPECT_EQ(ask(clients.back(), "begin"), "begin");
  }
  for (StreamSocket& client : clients) {
    EXPECT_EQ(ask(client, "again"), "again");
    client.close();
  }
  for (int i = 0; i < 100; ++i) {
    StreamSocket client = connectTo(*server);
    EXPECT_EQ(ask(client, "next"), "next");
  }
  server->stop();
  EXPECT_TRUE(server->finish(kPatience));
}

TEST(Server, servesAgainAfterAPause) {
  const std::unique_ptr<Server> server = echoServer();
  for (int i = 0; i < 4; ++i) {
    StreamSocket client = connectTo(*server);
    EXPECT_EQ(ask(client, "x"), "x");
    client.close();
    std::this_thread::sleep_for(std::chrono::milliseconds(60));  // longer than a worker waits
  }
}

TEST(Server, isNotFinishedWhileAConnectionIsOpen) {
  const std::unique_ptr<Server> server = echoServer();
  StreamSocket client = connectTo(*server);
  EXPECT_EQ(ask(client, "x"), "x");
  server->stop();
  EXPECT_FALSE(server->finish(std::chrono::milliseconds(50)));
  EXPECT_EQ(ask(client, "still served"), "still served");
  client.close();
  EXPECT_TRUE(server->finish(kPatience));
}

TEST(Server, aPortInUseIsTheLibrarysExceptionAndAStoppedServersPortIsFree) {
  auto first = echoServer();
  const std::uint16_t port = first->port();
  EXPECT_THROW((void)echoServer({.port = port}), Poco::Exception);
  StreamSocket client = connectTo(*first);
  EXPECT_EQ(ask(client, "x"), "x");
  first->stop();
  client.close();
  EXPECT_TRUE(first->finish(kPatience));
  first.reset();
  first = echoServer({.port = port});
  StreamSocket second = connectTo(*first);
  EXPECT_EQ(ask(second, "y"), "y");
}

TEST(Server, tellsItsWatcherOfEachConnection) {
  TrafficLog log;
  auto server = echoServer({.watcher = &log});
  for (int i = 0; i < 20; ++i) {
    StreamSocket client = connectTo(*server);
    EXPECT_EQ(ask(client, "text " + std::to_string(i)), "text " + std::to_string(i));
  }
  server->stop();
  EXPECT_TRUE(server->finish(kPatience));
  server.reset();
  ASSERT_EQ(log.connections().size(), 20U);
  for (const auto& [number, connection] : log.connections()) {
    EXPECT_EQ(connection.received, "text " + std::to_string(number - 1));
    EXPECT_EQ(connection.sent, connection.received);
    EXPECT_EQ(connection.end, ConnectionEnd::closedByPeer);
    EXPECT_EQ(connection.ends, 1);
  }
}

/// Refuses every second connection.
class Doorman : public AcceptedSocket {
 public:
  Doorman(const NewConnection& connection, int number) : AcceptedSocket(connection), number_(number) {}
  bool begin() override {
    if (number_ % 2 == 0) {
      tellRefused("not today");
      return false;
    }
    return true;
  }

 private:
  const int number_;
};

TEST(Server, aConnectionWhoseSocketRefusesItIsNotServed) {
  TrafficLog log;
  std::atomic<int> number = 0;
  auto server = echoServer({.watcher = &log, .make = [&](const NewConnection& connection) {
                              return Poco::AutoPtr<AcceptedSocket>(new Doorman(connection, ++number));
                            }});
  StreamSocket served = connectTo(*server);
  EXPECT_EQ(ask(served, "x"), "x");
  StreamSocket refused = connectTo(*server);
  char byte = 0;
  EXPECT_EQ(refused.receiveBytes(&byte, 1), 0);
  served.close();
  server->stop();
  EXPECT_TRUE(server->finish(kPatience));
  server.reset();
  EXPECT_EQ(log.connections().at(1).refused, "");
  EXPECT_EQ(log.connections().at(2).refused, "not today");
}

TEST(Server, answersHttpAndSurvivesAHandlerThatFails) {
  Server server({}, Poco::makeShared<AnswerFactory>());
  server.start();
  for (int i = 0; i < 3; ++i) {
    StreamSocket client = connectTo(server);
    EXPECT_EQ(ask(client, "GET /fail HTTP/1.1\r\n\r\n").substr(0, 12), "HTTP/1.1 500");
    client.close();
    StreamSocket other = connectTo(server);
    EXPECT_EQ(ask(other, "GET / HTTP/1.1\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
  }
  server.stop();
  EXPECT_TRUE(server.finish(kPatience));
}

}  // namespace
}  // namespace keltop::net
