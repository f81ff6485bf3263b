// Fuzz target for feedback envelopes as session files hold them, and for event records as clients send
// them: any bytes must decode to an envelope (or a bare event, which is wrapped in one) or be refused,
// never crash. What is accepted must survive the whole upload path (identifier rewriting, the JSON of
// its class, serialisation), and its archive form must decode to the same envelope.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/Archive.h"
#include "base/Log.h"
#include "feedback/SessionProcessingHelper.h"
#include "feedback/VorlenFeedback.h"
#include "model/QXFeedback.h"
#include "model/RecordCoder.h"

namespace {

using vorlen::Value;
using vorlen::VorlenFeedback;

std::optional<VorlenFeedback> envelope(const Value& value) {
  if (value.className() == VorlenFeedback::kClassName) return VorlenFeedback::fromArchive(value);
  if (!vorlen::RecordCoder::validate(value, vorlen::QXFeedback::kClassName)) return std::nullopt;
  return VorlenFeedback(vorlen::QXFeedback::fromValidatedRecord(value), 7, std::nullopt, "agent", 3);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Rejections log one line each; the fuzzer's own output is what matters here.
  static bool quiet = (vorlen::Log::setThreshold(vorlen::LogLevel::Fault), true);
  (void)quiet;
  std::optional<Value> value = vorlen::Archive::decode({data, size});
  if (!value) return 0;
  std::optional<VorlenFeedback> feedback = envelope(*value);
  if (!feedback) return 0;

  // The archive form decodes to the same envelope.
  std::optional<VorlenFeedback> back = VorlenFeedback::fromArchive(feedback->toArchive());
  if (!back || back->toArchive().describe() != feedback->toArchive().describe()) std::abort();

  const int type = feedback->type();
  if (type < 0 || type >= static_cast<int>(VorlenFeedback::eventTypes().size())) std::abort();
  // Processing twice with one helper is what a session does when an event repeats.
  vorlen::SessionProcessingHelper helper;
  VorlenFeedback copy = *feedback;
  feedback->process(helper);
  copy.process(helper);
  (void)helper.missingResults();
  (void)helper.missingSuggestions();

  // Decoded text is UTF-8, so both forms must serialise.
  std::string upload = feedback->dictionary().dump();
  if (upload.empty() || !feedback->description()) std::abort();
  return 0;
}
