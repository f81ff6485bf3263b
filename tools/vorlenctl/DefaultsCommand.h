// DefaultsCommand: `vorlenctl defaults read|write|delete DOMAIN KEY [VALUE]` edits a preferences domain
// file (<config>/<DOMAIN>.plist) directly through Preferences, so it works without the daemon; the daemon
// sees the change on its next read of the key.
//
// A domain is a file name: empty names, names with "/" and names starting with "." are refused. A value
// is typed by --type (bool|int|uint|real|string); text that does not parse completely as that type is
// refused (exit 2). Reading or deleting a missing key is a failure (exit 1).
//
// Threading: main thread only.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "CtlOutput.h"
#include "ExitCode.h"
#include "base/Value.h"

namespace vorlen::ctl {

class DefaultsCommand {
 public:
  DefaultsCommand(const CtlOutput& out, std::filesystem::path configDir);

  // Without a key: every stored value of the domain.
  ExitCode read(const std::string& domain, const std::optional<std::string>& key);
  ExitCode write(const std::string& domain, const std::string& key, const std::string& value,
                 const std::string& type);
  ExitCode remove(const std::string& domain, const std::string& key);

  // The Value `text` denotes as `type`; nullopt with the reason when it does not parse.
  static std::optional<Value> parseTyped(const std::string& text, const std::string& type,
                                         std::string* error);

 private:
  bool validDomain(const std::string& domain) const;

  const CtlOutput& out_;
  std::filesystem::path configDir_;
};

}  // namespace vorlen::ctl
