#include "platform/InteractionDonor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "base/Log.h"

namespace vorlen {

InteractionDonor::InteractionDonor(std::filesystem::path file, std::shared_ptr<Clock> clock)
    : file_(std::move(file)), clock_(std::move(clock)) {}

void InteractionDonor::donate(const std::string& domain, const std::string& verb,
                              const std::map<std::string, std::string>& parameters) {
  nlohmann::ordered_json line = {
      {"time", toSeconds(clock_->now().time_since_epoch())},
      {"domain", domain},
      {"verb", verb},
      {"parameters", parameters},
  };
  // Invalid UTF-8 from a client is replaced rather than refused: the donation is still worth keeping.
  std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::lock_guard lock(mu_);
  int fd = ::open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) {
    VorlenDefaultLog().error("cannot open interaction file {}: {}", file_.string(), std::strerror(errno));
    return;
  }
  ssize_t n = ::write(fd, text.data(), text.size());
  if (n != static_cast<ssize_t>(text.size())) {
    VorlenDefaultLog().error("cannot write interaction file {}: {}", file_.string(), std::strerror(errno));
  }
  ::close(fd);
}

}  // namespace vorlen
