// UrlComponents: an absolute URL split into scheme, user information, host, port, path, query and fragment,
// and composed back. Parts are held as they appear on the wire (percent-encoded); queryItems() decodes the
// query and setQueryItems() encodes one.
//
// Query encoding: in item names and values every byte outside the unreserved set and "!$'()*,:;@/?" is
// percent-encoded, so "&", "=", "+", "#", "%" and space never survive raw. ";" is deliberately left alone
// here; callers that must not let servers split on it replace it themselves.
//
// parse() accepts only absolute URLs with a scheme and a host; anything else yields nullopt and one log
// line. Relative references are not resolved against a base.
//
// Threading: plain value type.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "network/QueryItem.h"

namespace vorlen {

class UrlComponents {
 public:
  static std::optional<UrlComponents> parse(std::string_view url);

  const std::string& scheme() const { return scheme_; }
  const std::string& host() const { return host_; }  // IPv6 literals keep their brackets
  std::optional<int> port() const { return port_; }
  const std::string& path() const { return path_; }
  const std::optional<std::string>& percentEncodedQuery() const { return query_; }
  const std::optional<std::string>& fragment() const { return fragment_; }

  void setPath(std::string path) { path_ = std::move(path); }
  // nullopt removes the query ("?" is not emitted); an empty string emits a bare "?".
  void setPercentEncodedQuery(std::optional<std::string> query) { query_ = std::move(query); }

  // The query split at "&" and the first "=" of each item, percent-decoded ("+" stays "+"). Empty items
  // ("a=1&&b=2") are skipped. Empty when there is no query.
  std::vector<QueryItem> queryItems() const;
  // Replaces the query with the encoded items, in the given order; an empty list removes the query.
  void setQueryItems(const std::vector<QueryItem>& items);

  // The absolute URL text.
  std::string string() const;

  static std::string percentEncodeQueryPart(std::string_view text);
  // Decodes "%XY" escapes; a malformed escape is kept literally.
  static std::string percentDecode(std::string_view text);

 private:
  UrlComponents() = default;

  std::string scheme_;
  std::string userInfo_;  // "user" or "user:password", encoded; empty when absent
  std::string host_;
  std::optional<int> port_;
  std::string path_;
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
};

}  // namespace vorlen
