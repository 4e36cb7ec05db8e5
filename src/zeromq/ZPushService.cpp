#include "zeromq/ZPushService.h"

#include <exception>
#include <memory>
#include <utility>

#include "semaphore/ScopedLock.h"
#include "zeromq/SocketTable.h"

namespace QXUTIL::ZEROMQ {

namespace {

using Socket = ZPushService::ZPushServiceSocket;

/// The service mutex, for as long as it takes.
class TableLock : public SEMAPHORE::ScopedLock {
 public:
  explicit TableLock(SocketTable& table) : ScopedLock(table.mutex, keltop::platform::kInfinite) {}
};

}  // namespace

ZPushService::ZPushService() {
  ++socketTable().users;
}

ZPushService::~ZPushService() {
  SocketTable& table = socketTable();
  if (--table.users != 0) {
    return;
  }
  const TableLock lock(table);
  if (!lock.held()) {
    return;
  }
  try {
    while (!table.sockets.empty()) {
      if (const auto& socket = table.sockets.begin()->second) {
        socket->release();
      }
      table.sockets.erase(table.sockets.begin());
    }
  } catch (const std::exception&) {
    // What is left in the table stays there, on purpose.
  }
}

int ZPushService::connect(const std::string& endpoint) {
  SocketTable& table = socketTable();
  const TableLock lock(table);
  if (!lock.held()) {
    return -1;
  }
  if (const auto known = table.sockets.find(endpoint); known != table.sockets.end()) {
    return known->second ? known->second->connect(endpoint) : -1;
  }
  auto socket = std::make_unique<Socket>();
  const int result = socket->connect(endpoint);
  if (result == 0) {
    table.sockets.emplace(endpoint, std::move(socket));
  }
  return result;
}

void ZPushService::setLinger(const std::string& endpoint, std::int32_t milliseconds) {
  if (milliseconds < 0) {
    return;
  }
  SocketTable& table = socketTable();
  const TableLock lock(table);
  if (!lock.held()) {
    return;
  }
  if (const auto known = table.sockets.find(endpoint); known != table.sockets.end() && known->second) {
    known->second->setLinger(milliseconds);
  }
}

void ZPushService::push(const std::string& endpoint, const std::string& text) {
  SocketTable& table = socketTable();
  const TableLock lock(table);
  if (!lock.held()) {
    return;
  }
  if (const auto known = table.sockets.find(endpoint); known != table.sockets.end()) {
    // The text of a failed send is not sent again; the next push connects anew.
    if (!known->second || !known->second->isOpen() || known->second->send(text) != 0) {
      table.sockets.erase(known);
    }
    return;
  }
  auto socket = std::make_unique<Socket>();
  if (socket->connect(endpoint) == 0) {
    (void)socket->send(text);
    table.sockets.emplace(endpoint, std::move(socket));
  }
}

void ZPushService::remove(const std::string& endpoint) {
  SocketTable& table = socketTable();
  const TableLock lock(table);
  if (lock.held()) {
    table.sockets.erase(endpoint);
  }
}

}  // namespace QXUTIL::ZEROMQ
