#include "network/UrlComponents.h"

#include <curl/curl.h>

#include <memory>

#include "base/Log.h"

namespace vorlen {
namespace {

struct CurlUrlDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};
struct CurlStringDeleter {
  void operator()(char* s) const { curl_free(s); }
};

// One part of a parsed URL, as it appears in the URL; nullopt when the URL does not have it.
std::optional<std::string> part(CURLU* url, CURLUPart which) {
  char* raw = nullptr;
  if (curl_url_get(url, which, &raw, 0) != CURLUE_OK || raw == nullptr) return std::nullopt;
  std::unique_ptr<char, CurlStringDeleter> owned(raw);
  return std::string(raw);
}

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

bool keptInQueryPart(unsigned char c) {
  if (isUnreserved(c)) return true;
  switch (c) {
    case '!':
    case '$':
    case '\'':
    case '(':
    case ')':
    case '*':
    case ',':
    case ':':
    case ';':
    case '@':
    case '/':
    case '?':
      return true;
    default:
      return false;
  }
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<UrlComponents> UrlComponents::parse(std::string_view url) {
  std::unique_ptr<CURLU, CurlUrlDeleter> handle(curl_url());
  if (!handle) return std::nullopt;
  std::string text(url);
  CURLUcode rc = curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME);
  if (rc != CURLUE_OK) {
    VorlenLogForCategory(VorlenLogCategoryRequest)
        .error("malformed URL {}: {}", Private(text), curl_url_strerror(rc));
    return std::nullopt;
  }
  UrlComponents out;
  auto scheme = part(handle.get(), CURLUPART_SCHEME);
  auto host = part(handle.get(), CURLUPART_HOST);
  if (!scheme || !host || host->empty()) {
    VorlenLogForCategory(VorlenLogCategoryRequest)
        .error("malformed URL {}: no scheme or host", Private(text));
    return std::nullopt;
  }
  out.scheme_ = *scheme;
  out.host_ = *host;
  if (auto user = part(handle.get(), CURLUPART_USER)) {
    out.userInfo_ = *user;
    if (auto password = part(handle.get(), CURLUPART_PASSWORD)) out.userInfo_ += ":" + *password;
  }
  if (auto port = part(handle.get(), CURLUPART_PORT))
    out.port_ = std::stoi(*port);  // digits, checked by curl
  out.path_ = part(handle.get(), CURLUPART_PATH).value_or("/");
  out.query_ = part(handle.get(), CURLUPART_QUERY);
  out.fragment_ = part(handle.get(), CURLUPART_FRAGMENT);
  return out;
}

std::vector<QueryItem> UrlComponents::queryItems() const {
  std::vector<QueryItem> items;
  if (!query_) return items;
  std::string_view rest = *query_;
  while (!rest.empty()) {
    size_t amp = rest.find('&');
    std::string_view piece = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
    if (piece.empty()) continue;
    size_t eq = piece.find('=');
    if (eq == std::string_view::npos) {
      items.push_back({percentDecode(piece), std::nullopt});
    } else {
      items.push_back({percentDecode(piece.substr(0, eq)), percentDecode(piece.substr(eq + 1))});
    }
  }
  return items;
}

void UrlComponents::setQueryItems(const std::vector<QueryItem>& items) {
  if (items.empty()) {
    query_.reset();
    return;
  }
  std::string query;
  for (const QueryItem& item : items) {
    if (!query.empty()) query += '&';
    query += percentEncodeQueryPart(item.name);
    if (item.value) {
      query += '=';
      query += percentEncodeQueryPart(*item.value);
    }
  }
  query_ = std::move(query);
}

std::string UrlComponents::string() const {
  std::string out = scheme_ + "://";
  if (!userInfo_.empty()) out += userInfo_ + "@";
  out += host_;
  if (port_) out += ":" + std::to_string(*port_);
  out += path_.empty() ? "/" : path_;
  if (query_) out += "?" + *query_;
  if (fragment_) out += "#" + *fragment_;
  return out;
}

std::string UrlComponents::percentEncodeQueryPart(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    if (keptInQueryPart(c)) {
      out += ch;
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  return out;
}

std::string UrlComponents::percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      int hi = hexValue(text[i + 1]), lo = hexValue(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

}  // namespace vorlen
