#include "feedback/VorlenFeedback.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "base/Counters.h"
#include "base/Log.h"
#include "feedback/FeedbackEventEncoder.h"
#include "feedback/FeedbackEventType.h"
#include "model/RecordCoder.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kFeedbackNotSentCounter = "com.velmo.vorlend.feedbacknotsent";

constexpr const char* kEventTypeStrings[kEventTypeCount] = {
    "visible_results",
    "network_search_start",
    "network_search_end",
    "local_search_start",
    "local_search_end",
    "search_view_appear",
    "search_view_disappear",
    "rank_sections",
    "result_engagement",
    "visible_card",
    "card_engagement",
    "error",
    "suggestion_engagement",
    "card_view_disappear",
    "search_start",
    "search_end",
    "visible_suggestions",
    "custom_unknown",
    "custom_crowdsourcing",
    "custom_voyant_autofill",
    "custom_norvanta_result_features",
    "unknown",
    "results_received_after_timeout",
    "late_sections_appended",
    "clear_input",
    "session_end",
    "skip_vorlen_search",
    "section_engagement",
    "visible_section_header",
    "session_missing_results",
    "session_missing_suggestions",
    "did_go_to_site",
    "connection_invalidated",
    "result_grade",
    "did_go_to_search",
    "lookup_hint_graded",
    "card_view_appear",
    "card_section_engagement",
};

// JSON null has no property-list form: callers leave such entries out.
Value toValue(const Json& j) {
  switch (j.type()) {
    case Json::value_t::string:
      return Value(j.get<std::string>());
    case Json::value_t::boolean:
      return Value(j.get<bool>());
    case Json::value_t::number_integer:
      return Value(static_cast<long long>(j.get<int64_t>()));
    case Json::value_t::number_unsigned:
      return Value(static_cast<unsigned long long>(j.get<uint64_t>()));
    case Json::value_t::number_float:
      return Value(j.get<double>());
    case Json::value_t::array: {
      Value::Array a;
      for (const Json& item : j) {
        if (!item.is_null()) a.push_back(toValue(item));
      }
      return Value(std::move(a));
    }
    case Json::value_t::object: {
      Value::Dict d;
      for (auto it = j.begin(); it != j.end(); ++it) {
        if (!it.value().is_null()) d.insert_or_assign(it.key(), toValue(it.value()));
      }
      return Value(std::move(d));
    }
    default:
      return Value();
  }
}

bool reject(std::string reason, std::string* error) {
  VorlenLogForCategory(VorlenLogCategoryFeedbackStorage).error("rejecting feedback envelope: {}", reason);
  if (error) *error = std::move(reason);
  return false;
}

}  // namespace

int VorlenFeedback::type() const {
  return FeedbackEventEncoder::type(feedback);
}

bool VorlenFeedback::requiresQueryId() const {
  return FeedbackEventEncoder::requiresQueryId(feedback);
}

void VorlenFeedback::process(SessionProcessingHelper& helper) {
  FeedbackEventEncoder::process(feedback, helper);
}

Json VorlenFeedback::baseDictionary() const {
  Json d = FeedbackEventEncoder::dictionary(feedback);
  if (requiresQueryId()) {
    d["query_id"] = queryId;
    if (clientQueryId != 0) d["client_query_id"] = clientQueryId;
  }
  d["type"] = eventTypeToString(type());
  return d;
}

Json VorlenFeedback::dictionary() const {
  Json d = baseDictionary();
  d["timestamp"] = relTimestamp;
  return d;
}

Value VorlenFeedback::dictionaryValue() const {
  return toValue(dictionary());
}

std::optional<std::string> VorlenFeedback::description() const {
  Json d = baseDictionary();
  d["timestamp"] = feedback.timestamp() / QXFeedback::kMachineTimeUnitsPerMillisecond;
  try {
    return d.dump();
  } catch (const nlohmann::json::exception&) {
    // Text that is not UTF-8 cannot be written as JSON.
    VorlenDiagnosticDataReporter::addValue(1, kFeedbackNotSentCounter);
    return std::nullopt;
  }
}

Value VorlenFeedback::toArchive() const {
  Value::Dict d;
  d.emplace("$class", Value(kClassName));
  d.emplace("feedback", feedback.toRecord());
  d.emplace("query_id", Value(static_cast<long long>(queryId)));
  if (userGuid)
    d.emplace("user_guid", Value(Value::Data(userGuid->bytes().begin(), userGuid->bytes().end())));
  d.emplace("user_agent", Value(userAgent));
  d.emplace("_clientQueryId", Value(static_cast<unsigned long long>(clientQueryId)));
  return Value(std::move(d));
}

std::optional<VorlenFeedback> VorlenFeedback::fromArchive(const Value& archive, std::string* error) {
  const Value::Dict* dict = archive.getDict();
  if (!dict) {
    reject(fmt::format("expected a record, found {}", archive.typeName()), error);
    return std::nullopt;
  }
  const Value* cls = archive.find("$class");
  if (!cls || !cls->getString() || *cls->getString() != kClassName) {
    reject(fmt::format("not a {} record", kClassName), error);
    return std::nullopt;
  }
  for (const auto& [key, value] : *dict) {
    if (key != "$class" && key != "feedback" && key != "query_id" && key != "user_guid" &&
        key != "user_agent" && key != "_clientQueryId") {
      reject(fmt::format("{}: unknown key {}", kClassName, key), error);
      return std::nullopt;
    }
  }

  const Value* event = archive.find("feedback");
  if (!event) {
    reject(fmt::format("{}: missing feedback", kClassName), error);
    return std::nullopt;
  }
  std::string why;
  if (!RecordCoder::validate(*event, QXFeedback::kClassName, &why)) {
    reject(fmt::format("{}.feedback: {}", kClassName, why), error);
    return std::nullopt;
  }
  VorlenFeedback out(QXFeedback::fromValidatedRecord(*event), 0, std::nullopt, "");

  if (const Value* v = archive.find("query_id")) {
    std::optional<int64_t> id = v->isInteger() ? v->getInt() : std::nullopt;
    if (!id) {
      reject(
          fmt::format("{}.query_id: expected a signed 64-bit integer, found {}", kClassName, v->typeName()),
          error);
      return std::nullopt;
    }
    out.queryId = *id;
  }
  if (const Value* v = archive.find("user_guid")) {
    const Value::Data* bytes = v->getData();
    std::optional<Uuid> guid = bytes ? Uuid::fromBytes(bytes->data(), bytes->size()) : std::nullopt;
    if (!guid) {
      reject(fmt::format("{}.user_guid: expected a 16-byte GUID", kClassName), error);
      return std::nullopt;
    }
    out.userGuid = guid;
  }
  if (const Value* v = archive.find("user_agent")) {
    if (!v->isString()) {
      reject(fmt::format("{}.user_agent: expected string, found {}", kClassName, v->typeName()), error);
      return std::nullopt;
    }
    out.userAgent = *v->getString();
  }
  if (const Value* v = archive.find("_clientQueryId")) {
    std::optional<uint64_t> id = v->isInteger() ? v->getUInt() : std::nullopt;
    if (!id) {
      reject(fmt::format("{}._clientQueryId: expected an unsigned 64-bit integer, found {}", kClassName,
                         v->typeName()),
             error);
      return std::nullopt;
    }
    out.clientQueryId = *id;
  }
  return out;
}

const std::vector<std::string>& VorlenFeedback::eventTypes() {
  static const std::vector<std::string>* const table =
      new std::vector<std::string>(std::begin(kEventTypeStrings), std::end(kEventTypeStrings));
  return *table;
}

std::string VorlenFeedback::eventTypeToString(int type) {
  if (type < 0 || type >= kEventTypeCount) {
    VorlenLogForCategory(VorlenLogCategoryFeedback).fault("no feedback event type {}", type);
    return fmt::format("(unknown: {})", type);
  }
  return eventTypes()[static_cast<size_t>(type)];
}

bool VorlenFeedback::timeStampComparator(const VorlenFeedback& a, const VorlenFeedback& b) {
  return a.feedback.timestamp() < b.feedback.timestamp();
}

}  // namespace vorlen
