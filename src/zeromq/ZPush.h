#pragma once

#include <string>
#include <string_view>

#include "zeromq/ZBase.h"

namespace QXUTIL::ZEROMQ {

/// A socket that only sends, to whichever of its peers takes the next message.
class ZPush : public ZBase {
 public:
  ZPush() = default;

  virtual int bind(const std::string& endpoint);
  virtual int connect(const std::string& endpoint);

  using ZBase::send;

  /// Sends a message of one part; 0 without doing anything when the socket is closed.
  virtual int send(const std::string& text);

 protected:
  explicit ZPush(std::string_view errorText) : ZBase(errorText) {}
};

}  // namespace QXUTIL::ZEROMQ
