// Fuzz target for the session-file reader: any image must restore to a session or to nothing, never crash
// or read past its end. What restores must hold only events that encode again and restore to themselves.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "feedback/ClientSession.h"
#include "feedback/VorlenFeedback.h"
#include "platform/Assembly.h"
#include "storage/ArchivedDataIterator.h"
#include "storage/FileContainer.h"

namespace {

constexpr const char* kVersion = "Vorlend/1.0 (fuzz)";

const vorlen::Assembly& assembly() {
  static vorlen::Assembly* a = [] {
    vorlen::Platform platform;
    platform.clock = std::make_shared<vorlen::ManualClock>();
    return new vorlen::Assembly(platform);
  }();
  return *a;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    vorlen::Log::setThreshold(vorlen::LogLevel::Fault);
    return true;
  }();
  (void)quiet;
  // The first record is the version: a seed may carry it or not; both paths are worth exploring.
  std::span<const uint8_t> image(data, size);
  std::string version = kVersion;
  if (size > 0 && data[0] & 1) {
    vorlen::ArchivedDataIterator it(image);
    if (auto v = it.readNextObject()) version.assign(v->begin(), v->end());
  }
  std::shared_ptr<vorlen::ClientSession> session =
      vorlen::FileContainer::unarchive(image, version, assembly());
  if (!session) return 0;
  for (const vorlen::VorlenFeedback& f : session->getSessionFeedbacks()) {
    std::optional<vorlen::VorlenFeedback> again = vorlen::VorlenFeedback::fromArchive(f.toArchive());
    if (!again || again->toArchive() != f.toArchive()) std::abort();
  }
  return 0;
}
