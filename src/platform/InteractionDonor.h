// InteractionDonor: the interaction-donation service. Each donation (an intent of a domain, a verb and
// string parameters) is appended as one JSON line, with the time it was made, to a file that other
// on-device components read. The file is created with mode 0600; a write failure is logged and dropped.
//
// Threading: donate() is safe from any thread; lines never interleave.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/Clock.h"

namespace vorlen {

class InteractionDonor {
 public:
  InteractionDonor(std::filesystem::path file, std::shared_ptr<Clock> clock);

  void donate(const std::string& domain, const std::string& verb,
              const std::map<std::string, std::string>& parameters);

  const std::filesystem::path& file() const { return file_; }

 private:
  std::filesystem::path file_;
  std::shared_ptr<Clock> clock_;
  std::mutex mu_;
};

}  // namespace vorlen
