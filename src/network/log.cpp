#include "network/log.h"

#include <syslog.h>

namespace velmora::plugin::network {

// The line is passed as an argument and not as the format, because it may contain "%".

void WriteInfo(const std::source_location& where, const std::string& message) {
  const std::string line = fmt::format("{}:{} {}", where.file_name(), where.line(), message);
  syslog(LOG_LOCAL1 | LOG_INFO, "%s", line.c_str());
}

void WriteDebug(const std::source_location& where, const std::string& message) {
  const std::string line = fmt::format("{:s}:{} {:s}", where.file_name(), where.line(), message);
  syslog(LOG_LOCAL1 | LOG_DEBUG, "%s", line.c_str());
}

}  // namespace velmora::plugin::network
