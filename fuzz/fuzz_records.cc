// Fuzz target for the record decoders: any bytes must decode to a valid record of the framework or be
// refused, never crash. What is accepted must decode into its typed form, and re-encoding that form must
// give a record that is accepted again and decodes to the same thing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "base/Archive.h"
#include "base/Log.h"
#include "model/Endpoint.h"
#include "model/FileHandle.h"
#include "model/QXFeedback.h"
#include "model/QXResultSection.h"
#include "model/QXSearchResult.h"
#include "model/QXSearchSuggestion.h"
#include "model/RecordCoder.h"
#include "model/RecordSchema.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORQueryItem.h"
#include "model/VORReply.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

namespace {

using vorlen::Value;

template <class T>
std::optional<Value> viaTyped(const Value& record) {
  std::optional<T> typed = T::fromRecord(record);
  if (!typed) std::abort();  // the schema accepted it, so its typed form must too
  return typed->toRecord();
}

// The record decoded into its typed form and encoded again.
std::optional<Value> reencode(const Value& record) {
  const vorlen::RecordSchema& schema = vorlen::RecordSchema::shared();
  std::string_view cls = record.className();
  if (schema.isKindOf(cls, vorlen::VORRequest::kClassName)) {
    std::shared_ptr<vorlen::VORRequest> request = vorlen::VORRequest::fromRecord(record);
    if (!request) std::abort();
    return request->toRecord();
  }
  if (schema.isKindOf(cls, vorlen::QXFeedback::kClassName)) return viaTyped<vorlen::QXFeedback>(record);
  if (cls == vorlen::VORBag::kClassName) return viaTyped<vorlen::VORBag>(record);
  if (cls == vorlen::VORSessionConfiguration::kClassName)
    return viaTyped<vorlen::VORSessionConfiguration>(record);
  if (cls == vorlen::VORQueryItem::kClassName) return viaTyped<vorlen::VORQueryItem>(record);
  if (cls == vorlen::VORReply::kClassName) return viaTyped<vorlen::VORReply>(record);
  if (cls == vorlen::VORError::kClassName) return viaTyped<vorlen::VORError>(record);
  if (cls == vorlen::QXSearchSuggestion::kClassName) return viaTyped<vorlen::QXSearchSuggestion>(record);
  if (cls == vorlen::QXSearchResult::kClassName) return viaTyped<vorlen::QXSearchResult>(record);
  if (cls == vorlen::QXResultSection::kClassName) return viaTyped<vorlen::QXResultSection>(record);
  if (cls == vorlen::Endpoint::kClassName) return viaTyped<vorlen::Endpoint>(record);
  if (cls == vorlen::FileHandle::kClassName) return viaTyped<vorlen::FileHandle>(record);
  std::abort();  // a class of the schema without a typed form
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Rejections log one line each; the fuzzer's own output is what matters here.
  static bool quiet = (vorlen::Log::setThreshold(vorlen::LogLevel::Fault), true);
  (void)quiet;
  std::optional<Value> value = vorlen::RecordCoder::decodeArchived({data, size}, "");
  if (!value) return 0;
  std::optional<Value> once = reencode(*value);
  if (!once || !vorlen::RecordCoder::validate(*once)) std::abort();
  std::optional<Value> bytes = vorlen::Archive::decodeBinary(vorlen::Archive::encodeBinary(*once));
  if (!bytes) std::abort();
  std::optional<Value> twice = reencode(*bytes);
  // describe() rather than ==, so that NaN compares equal to itself.
  if (!twice || twice->describe() != once->describe()) std::abort();
  return 0;
}
