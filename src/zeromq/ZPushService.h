#pragma once

#include <cstdint>
#include <string>

namespace QXUTIL::ZEROMQ {

/// Pushes texts to endpoints by name: one process-wide table holds a connected socket for each, made on first use,
/// dropped when a send on it fails and made anew by the next push. All objects share the table; the last one to go
/// empties it. Any thread may call; nothing throws, prints or blocks on a peer.
class ZPushService {
 public:
  class ZPushServiceSocket;

  ZPushService();
  virtual ~ZPushService();
  ZPushService(const ZPushService&) = delete;
  ZPushService& operator=(const ZPushService&) = delete;

  /// Connects the endpoint's socket, or counts one reference more to it. 0, or a negative result.
  virtual int connect(const std::string& endpoint);

  /// For the endpoint's socket, when there is one; a negative time is ignored.
  virtual void setLinger(const std::string& endpoint, std::int32_t milliseconds);

  /// Sends the text as one message of one part. What cannot be sent is lost.
  void push(const std::string& endpoint, const std::string& text);

  /// Closes the endpoint's socket, however many references there are, and removes it.
  void remove(const std::string& endpoint);
};

}  // namespace QXUTIL::ZEROMQ
