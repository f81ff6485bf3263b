#include "network/VorlenURLRequestBuilder.h"

namespace vorlen {

std::optional<VorlenURLRequestBuilder> VorlenURLRequestBuilder::requestBuilderWithURL(std::string_view url) {
  auto components = UrlComponents::parse(url);
  if (!components) return std::nullopt;
  return VorlenURLRequestBuilder(std::move(*components));
}

VorlenURLRequestBuilder::VorlenURLRequestBuilder(UrlComponents components)
    : urlComponents_(std::move(components)) {
  for (QueryItem& item : urlComponents_.queryItems()) forceQueryItem(std::move(item));
}

bool VorlenURLRequestBuilder::containsQueryItemWithName(const std::string& name) const {
  return queryItems_.contains(name);
}

bool VorlenURLRequestBuilder::containsHttpHeaderWithName(const std::string& name) const {
  return httpHeaders_.contains(name);
}

void VorlenURLRequestBuilder::forceQueryItem(QueryItem item) {
  std::string name = item.name;
  queryItems_.insert_or_assign(std::move(name), std::move(item));
}

void VorlenURLRequestBuilder::forceQueryItemWithName(std::string name, std::optional<std::string> value) {
  forceQueryItem(QueryItem{std::move(name), std::move(value)});
}

void VorlenURLRequestBuilder::forceQueryItemsFromArray(const std::optional<std::vector<QueryItem>>& items) {
  if (!items) return;
  for (const QueryItem& item : *items) forceQueryItem(item);
}

void VorlenURLRequestBuilder::defaultQueryItem(QueryItem item) {
  if (!containsQueryItemWithName(item.name)) forceQueryItem(std::move(item));
}

void VorlenURLRequestBuilder::defaultQueryItemWithName(std::string name, std::optional<std::string> value) {
  defaultQueryItem(QueryItem{std::move(name), std::move(value)});
}

void VorlenURLRequestBuilder::forceHttpHeaderWithName(const std::string& name,
                                                      std::optional<std::string> value) {
  if (value) {
    httpHeaders_.insert_or_assign(name, std::move(*value));
  } else {
    httpHeaders_.erase(name);
  }
}

void VorlenURLRequestBuilder::defaultHttpHeaderWithName(const std::string& name,
                                                        std::optional<std::string> value) {
  if (!containsHttpHeaderWithName(name)) forceHttpHeaderWithName(name, std::move(value));
}

HttpRequest VorlenURLRequestBuilder::createMutableUrlRequest() const {
  UrlComponents components = urlComponents_;
  std::vector<QueryItem> items;
  items.reserve(queryItems_.size());
  for (const auto& [name, item] : queryItems_) items.push_back(item);  // std::map order: byte order of names
  components.setQueryItems(items);
  if (auto query = components.percentEncodedQuery()) {
    std::string escaped;
    escaped.reserve(query->size());
    for (char c : *query) {
      if (c == ';') {
        escaped += "%3B";
      } else {
        escaped += c;
      }
    }
    components.setPercentEncodedQuery(std::move(escaped));
  }
  HttpRequest request;
  request.url = components.string();
  request.headers = httpHeaders_;
  return request;
}

}  // namespace vorlen
