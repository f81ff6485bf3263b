#include "model/VORBag.h"

#include <algorithm>
#include <cctype>

#include "model/Constants.h"

namespace vorlen {
namespace {

using K = VORBagKeys;

bool isURLText(std::string_view s) {
  size_t colon = s.find(':');
  if (colon == 0 || colon == std::string_view::npos || colon + 1 == s.size()) return false;
  if (!std::isalpha(static_cast<unsigned char>(s[0]))) return false;
  for (size_t i = 1; i < colon; ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return std::none_of(s.begin(), s.end(), [](char ch) {
    unsigned char c = static_cast<unsigned char>(ch);
    return c <= 0x20 || c == 0x7f;
  });
}

bool acceptsBool(const Value& v) {
  return v.isBool();
}
bool acceptsString(const Value& v) {
  return v.isString();
}
bool acceptsURL(const Value& v) {
  return v.isString() && isURLText(*v.getString());
}
bool acceptsNumber(const Value& v) {
  return v.isNumber();
}
// Negative numbers and fractions read as absent.
bool acceptsUnsigned(const Value& v) {
  return v.isNumber() && v.getUInt().has_value();
}
bool acceptsDict(const Value& v) {
  return v.isDict();
}
bool acceptsArray(const Value& v) {
  return v.isArray();
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace

const RecordBinding<VORBagRecord>& VORBagRecord::binding() {
  using B = RecordBinding<VORBagRecord>;
  static const B* const b = new B(kClassName, {
                                                  B::field("rawBag", &VORBagRecord::rawBag),
                                                  B::field("userAgent", &VORBagRecord::userAgent),
                                              });
  return *b;
}

VORBag::VORBag(Value::Dict rawBag, std::string userAgent)
    : raw_(std::make_shared<const Value::Dict>(std::move(rawBag))),
      userAgent_(std::move(userAgent)),
      clientName_(clientNameForUserAgent(userAgent_)) {
  auto clients = raw_->find(K::kClients);
  if (!clientName_.empty() && clients != raw_->end() && clients->second.isDict()) {
    if (const Value* entry = clients->second.find(clientName_)) client_ = entry->getDict();
  }
}

std::string VORBag::clientNameForUserAgent(std::string_view userAgent) {
  std::string agent = lower(userAgent);
  if (agent.find("voyant") != std::string::npos) return "voyant";
  if (agent.find("norvanta") != std::string::npos) return "norvanta";
  if (agent.find("news/1.0") != std::string::npos) return "news";
  // An agent built by the daemon wraps the client's text: "Vorlend/1.0 (<device>) <client text>".
  std::string_view rest = agent;
  std::string prefix = lower(kVORVorlendNameVersion) + " (";
  if (rest.starts_with(prefix)) {
    size_t close = rest.find(')', prefix.size());
    rest = close == std::string_view::npos ? std::string_view() : rest.substr(close + 1);
  }
  size_t start = rest.find_first_not_of(' ');
  if (start == std::string_view::npos) return "";
  rest = rest.substr(start);
  return std::string(rest.substr(0, rest.find_first_of("/ ;")));
}

const Value* VORBag::lookup(std::string_view key, Accepts accepts) const {
  if (client_) {
    auto it = client_->find(key);
    if (it != client_->end() && accepts(it->second)) return &it->second;
  }
  auto it = raw_->find(key);
  if (it != raw_->end() && accepts(it->second)) return &it->second;
  return nullptr;
}

std::optional<std::string> VORBag::url(std::string_view key) const {
  const Value* v = lookup(key, acceptsURL);
  return v ? std::optional<std::string>(*v->getString()) : std::nullopt;
}

std::optional<double> VORBag::number(std::string_view key) const {
  const Value* v = lookup(key, acceptsNumber);
  return v ? v->getDouble() : std::nullopt;
}

std::optional<uint64_t> VORBag::unsignedNumber(std::string_view key) const {
  const Value* v = lookup(key, acceptsUnsigned);
  return v ? v->getUInt() : std::nullopt;
}

bool VORBag::flag(std::string_view key) const {
  const Value* v = lookup(key, acceptsBool);
  return v && *v->getBool();
}

std::optional<std::vector<std::string>> VORBag::strings(std::string_view key) const {
  const Value* v = lookup(key, acceptsArray);
  if (!v) return std::nullopt;
  std::vector<std::string> out;
  for (const Value& item : *v->getArray()) {
    if (const std::string* s = item.getString()) out.push_back(*s);
  }
  return out;
}

std::optional<std::string> VORBag::version() const {
  auto it = raw_->find(K::kVersion);
  if (it == raw_->end() || !it->second.isString()) return std::nullopt;
  return *it->second.getString();
}

Value::Dict VORBag::resources() const {
  Value::Dict out;
  auto list = raw_->find(K::kDownloadResourcesList);
  if (list == raw_->end() || !list->second.isArray()) return out;
  for (const Value& item : *list->second.getArray()) {
    const std::string* id = item.getString();
    if (!id) continue;
    if (std::optional<std::string> u = urlForKey(*raw_, *id)) out.insert_or_assign(*id, Value(*u));
  }
  return out;
}

bool VORBag::isEnabled() const {
  return flag(K::kEnabled);
}
std::optional<std::string> VORBag::warmURL() const {
  return url(K::kWarmURL);
}
std::optional<std::string> VORBag::searchURL() const {
  return url(K::kSearchURL);
}
std::optional<std::string> VORBag::moreResultsURL() const {
  return url(K::kMoreResultsURL);
}
std::optional<std::string> VORBag::flightURL() const {
  return url(K::kFlightURL);
}
std::optional<std::string> VORBag::cardURL() const {
  return url(K::kCardURL);
}

std::string VORBag::l2version() const {
  const Value* v = lookup(K::kL2Version, acceptsString);
  return v ? *v->getString() : "";
}

std::string VORBag::l3version() const {
  const Value* v = lookup(K::kL3Version, acceptsString);
  return v ? *v->getString() : "";
}

bool VORBag::sendGeoEnvironmentHeader() const {
  return flag(K::kSendGeoEnvironmentHeader);
}

std::vector<std::string> VORBag::supportedGeoLocationSources() const {
  return strings(K::kSupportedGeoLocationSources).value_or(std::vector<std::string>{});
}

std::optional<Value::Dict> VORBag::quintaraConfiguration() const {
  const Value* v = lookup(K::kQuintaraConfiguration, acceptsDict);
  return v ? std::optional<Value::Dict>(*v->getDict()) : std::nullopt;
}

std::optional<std::vector<std::string>> VORBag::subscriptionProviderDomainWhitelist() const {
  return strings(K::kSubscriptionProviderDomainWhitelist);
}

std::optional<std::vector<std::string>> VORBag::subscriptionProviderBundleIdentifierWhitelist() const {
  return strings(K::kSubscriptionProviderBundleIdentifierWhitelist);
}

double VORBag::subscriptionTTL() const {
  return number(K::kSubscriptionTTL).value_or(0.0);
}
uint64_t VORBag::minimumQueryLength() const {
  return unsignedNumber(K::kMinimumQueryLength).value_or(0);
}
double VORBag::searchRenderTimeout() const {
  return number(K::kSearchRenderTimeout).value_or(0.0);
}
bool VORBag::feedbackEnabled() const {
  return flag(K::kFeedbackEnabled);
}
std::optional<std::string> VORBag::feedbackURL() const {
  return url(K::kFeedbackURL);
}
std::optional<std::string> VORBag::crowdsourcingURL() const {
  return url(K::kCrowdsourcingURL);
}

uint64_t VORBag::maximumSizeForFeedbackType(std::string_view type) const {
  const Value* sizes = lookup(K::kMaxFeedbackSize, acceptsDict);
  if (!sizes) return 0;
  const Value* v = sizes->find(type);
  return v && acceptsUnsigned(*v) ? *v->getUInt() : 0;
}

bool VORBag::smartHistoryEnabled() const {
  return flag(K::kSmartHistoryEnabled);
}
uint64_t VORBag::smartHistoryTimeout() const {
  return unsignedNumber(K::kSmartHistoryTimeout).value_or(0);
}
uint64_t VORBag::smartHistoryMaxRows() const {
  return unsignedNumber(K::kSmartHistoryMaxRows).value_or(0);
}
double VORBag::minThresholdToSend() const {
  return number(K::kMinThresholdToSend).value_or(0.0);
}
double VORBag::voyantLast1hour() const {
  return number(K::kVoyantLast1hour).value_or(10.0);
}
double VORBag::voyantLast1day() const {
  return number(K::kVoyantLast1day).value_or(1.0);
}
double VORBag::voyantLast1week() const {
  return number(K::kVoyantLast1week).value_or(0.1);
}
double VORBag::voyantLast1month() const {
  return number(K::kVoyantLast1month).value_or(0.01);
}
double VORBag::voyantAll() const {
  return number(K::kVoyantAll).value_or(0.001);
}
double VORBag::voyantMostRecent() const {
  return number(K::kVoyantMostRecent).value_or(1.0);
}

std::optional<double> VORBag::numberForKey(const Value::Dict& dict, std::string_view key) {
  auto it = dict.find(key);
  if (it == dict.end() || !acceptsNumber(it->second)) return std::nullopt;
  return it->second.getDouble();
}

std::optional<std::string> VORBag::urlForKey(const Value::Dict& dict, std::string_view key) {
  auto it = dict.find(key);
  if (it == dict.end() || !acceptsURL(it->second)) return std::nullopt;
  return *it->second.getString();
}

Value VORBag::toRecord() const {
  VORBagRecord r;
  r.rawBag = *raw_;
  r.userAgent = userAgent_;
  return r.toRecord();
}

std::optional<VORBag> VORBag::fromRecord(const Value& record, std::string* error) {
  std::optional<VORBagRecord> r = VORBagRecord::fromRecord(record, error);
  if (!r) return std::nullopt;
  return VORBag(std::move(r->rawBag), std::move(r->userAgent));
}

}  // namespace vorlen
