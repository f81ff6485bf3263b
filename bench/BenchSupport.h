// Pieces every benchmark shares.
#pragma once

#include "base/Log.h"

namespace vorlen::bench {

// Drops every log line: messages are still formatted as in production (the threshold is unchanged), but
// no log I/O enters a figure.
class DiscardingSink final : public LogSink {
 public:
  void write(const LogRecord&) override {}
};

}  // namespace vorlen::bench
