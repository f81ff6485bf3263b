// VorlenURLRequestBuilder: assembles the query items and header fields of one outgoing request, with
// "force" (set, replacing) and "default" (set only when absent) semantics, and emits the request.
//
// At most one query item and one header value per name. On output the query items are sorted by name
// with a plain byte comparison ("B" < "a" < "b"), whatever order they were added in, and every ";" of the
// encoded query is sent as "%3B" because servers would split on it. The URL's own query items are forced
// in URL order when the builder is made, so a later duplicate replaces an earlier one and any of them can
// be replaced by name.
//
// Threading: used by one thread at a time; not shared.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "network/HttpRequest.h"
#include "network/QueryItem.h"
#include "network/UrlComponents.h"

namespace vorlen {

class VorlenURLRequestBuilder {
 public:
  // nullopt (with a log line) when `url` is not an absolute URL.
  static std::optional<VorlenURLRequestBuilder> requestBuilderWithURL(std::string_view url);
  explicit VorlenURLRequestBuilder(UrlComponents components);

  bool containsQueryItemWithName(const std::string& name) const;
  bool containsHttpHeaderWithName(const std::string& name) const;

  void forceQueryItem(QueryItem item);
  void forceQueryItemWithName(std::string name, std::optional<std::string> value);
  // forceQueryItem() for each item in order; nothing for an absent list.
  void forceQueryItemsFromArray(const std::optional<std::vector<QueryItem>>& items);
  void defaultQueryItem(QueryItem item);
  void defaultQueryItemWithName(std::string name, std::optional<std::string> value);

  // An absent value removes the header.
  void forceHttpHeaderWithName(const std::string& name, std::optional<std::string> value);
  // Sets the header only when it is not set; an absent value then leaves it unset.
  void defaultHttpHeaderWithName(const std::string& name, std::optional<std::string> value);

  HttpRequest createMutableUrlRequest() const;
  HttpRequest createUrlRequest() const { return createMutableUrlRequest(); }

 private:
  UrlComponents urlComponents_;
  std::map<std::string, QueryItem> queryItems_;
  std::map<std::string, std::string> httpHeaders_;
};

}  // namespace vorlen
