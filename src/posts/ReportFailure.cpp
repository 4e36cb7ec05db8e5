#include "posts/ReportFailure.h"

#include <Poco/Exception.h>

#include "posts/Posting.h"
#include "product/ConsoleStream.h"

namespace keltop {

void reportFailure(unsigned site, std::string_view message, const Poco::Exception& error) {
  printSiteLine(kPostRoutine, site, message, error.displayText());
}

}  // namespace keltop
