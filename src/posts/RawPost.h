#pragma once

#include <Poco/Net/StreamSocket.h>

#include "posts/Posting.h"

namespace keltop {

/// Posts with a hand-written request over `socket`, which is not connected yet, and prints the first piece of what
/// comes back at once. Failures to connect, send and receive are printed; a host that cannot be resolved is the
/// network library's exception.
void postRaw(Poco::Net::StreamSocket& socket, const Posting& posting);

}  // namespace keltop
