#include "CtlOutput.h"

#include <cstdio>

#include <fmt/format.h>

namespace vorlen::ctl {

void CtlOutput::line(std::string_view text) const {
  if (!json_) fmt::print("{}\n", text);
}

void CtlOutput::document(const nlohmann::ordered_json& doc) const {
  if (!json_) return;
  constexpr auto replace = nlohmann::ordered_json::error_handler_t::replace;
  if (!short_) {
    fmt::print("{}\n", doc.dump(2, ' ', false, replace));
  } else if (doc.is_array()) {
    for (const auto& record : doc) fmt::print("{}\n", record.dump(-1, ' ', false, replace));
  } else {
    fmt::print("{}\n", doc.dump(-1, ' ', false, replace));
  }
}

ExitCode CtlOutput::error(ExitCode code, std::string_view message) const {
  fmt::print(stderr, "vorlenctl: {}\n", message);
  return code;
}

ExitCode CtlOutput::clientError(const ClientError& e) const {
  switch (e.kind) {
    case ClientError::Kind::Unreachable:
    case ClientError::Kind::TimedOut:
    case ClientError::Kind::ConnectionLost:
      return error(ExitCode::Unreachable, e.message);
    case ClientError::Kind::InvalidArgument:
      return error(ExitCode::Usage, e.message);
    case ClientError::Kind::MalformedReply:
      break;
  }
  return error(ExitCode::Failed, e.message);
}

ExitCode CtlOutput::daemonError(const VORError& e) const {
  return error(ExitCode::Failed, fmt::format("vorlend answered with error {} ({}): {}", e.code, e.domain,
                                             e.reason().value_or("no reason given")));
}

}  // namespace vorlen::ctl
