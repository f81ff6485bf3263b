#include "network/VorlenURLRequestBuilder.h"

namespace vorlen {

std::optional<VorlenURLRequestBuilder> VorlenURLRequestBuilder::requestBuilderWithURL(std::string_view url) {
  auto components = UrlComponents::parse(url);
  if (!components) return std::nullopt;
  return VorlenURLRequestBuilder(std::move(*components));
}

VorlenURLRequestBuilder::VorlenURLRequestBuilder(UrlComponents components)
    : _urlComponents(std::move(components)) {
  for (QueryItem& item : _urlComponents.queryItems()) forceQueryItem(std::move(item));
}

bool VorlenURLRequestBuilder::containsQueryItemWithName(const std::string& name) const {
  return _queryItems.contains(name);
}

bool VorlenURLRequestBuilder::containsHttpHeaderWithName(const std::string& name) const {
  return _httpHeaders.contains(name);
}

void VorlenURLRequestBuilder::forceQueryItem(QueryItem item) {
  std::string name = item.name;
  _queryItems.insert_or_assign(std::move(name), std::move(item));
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
    _httpHeaders.insert_or_assign(name, std::move(*value));
  } else {
    _httpHeaders.erase(name);
  }
}

void VorlenURLRequestBuilder::defaultHttpHeaderWithName(const std::string& name,
                                                        std::optional<std::string> value) {
  if (!containsHttpHeaderWithName(name)) forceHttpHeaderWithName(name, std::move(value));
}

HttpRequest VorlenURLRequestBuilder::createMutableUrlRequest() const {
  UrlComponents components = _urlComponents;
  std::vector<QueryItem> items;
  items.reserve(_queryItems.size());
  for (const auto& [name, item] : _queryItems) items.push_back(item);  // std::map order: byte order of names
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
  request.headers = _httpHeaders;
  return request;
}

}  // namespace vorlen
