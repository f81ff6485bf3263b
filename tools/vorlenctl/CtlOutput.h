// CtlOutput: where vorlenctl's results and errors go. Results go to stdout, as text for people or, with
// --json, as one JSON document for scripts (pretty-printed; with --json=short a list is one line per
// record and anything else one line); errors always go to stderr as one "vorlenctl: ..." line, and
// each error names the exit status it leads to.
//
// Threading: used from the main thread only.
#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

#include "ExitCode.h"
#include "client/ClientResult.h"
#include "model/VORError.h"

namespace vorlen::ctl {

class CtlOutput {
 public:
  enum class Style { Text, PrettyJson, ShortJson };

  explicit CtlOutput(Style style) : json_(style != Style::Text), short_(style == Style::ShortJson) {}
  explicit CtlOutput(bool json) : CtlOutput(json ? Style::PrettyJson : Style::Text) {}

  bool json() const { return json_; }
  // One line of human output (ignored in --json mode, which prints only document()).
  void line(std::string_view text) const;
  // The JSON result (only in --json mode).
  void document(const nlohmann::ordered_json& doc) const;

  // Prints the error and returns `code`.
  ExitCode error(ExitCode code, std::string_view message) const;
  // Unreachable, time-out and a broken connection: 3; a malformed answer: 1; a refused argument: 2.
  ExitCode clientError(const ClientError& error) const;
  // An error the daemon answered with: 1.
  ExitCode daemonError(const VORError& error) const;

 private:
  bool json_;
  bool short_;
};

}  // namespace vorlen::ctl
