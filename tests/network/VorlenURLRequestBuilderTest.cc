#include "network/VorlenURLRequestBuilder.h"

#include <gtest/gtest.h>

#include "base/Log.h"

namespace vorlen {
namespace {

VorlenURLRequestBuilder builder(const std::string& url) {
  auto b = VorlenURLRequestBuilder::requestBuilderWithURL(url);
  EXPECT_TRUE(b) << url;
  return std::move(*b);
}

TEST(VorlenURLRequestBuilderTest, ItemsAreEmittedInByteOrderOfTheirNames) {
  auto b = builder("https://search.example/path/q");
  b.forceQueryItemWithName("b", "2");
  b.forceQueryItemWithName("a", "1");
  b.forceQueryItemWithName("B", "0");
  b.forceQueryItemWithName("_x", std::nullopt);
  EXPECT_EQ(b.createUrlRequest().url, "https://search.example/path/q?B=0&_x&a=1&b=2");
}

TEST(VorlenURLRequestBuilderTest, ValuesAreEncodedAndSemicolonsAreEscaped) {
  auto b = builder("https://search.example/s");
  b.forceQueryItemWithName("q", "a;b c&d=e+f#g%h/?:@");
  b.forceQueryItemWithName("e", "");
  b.forceQueryItemWithName("ü", "é");
  HttpRequest r = b.createMutableUrlRequest();
  EXPECT_EQ(r.url, "https://search.example/s?e=&q=a%3Bb%20c%26d%3De%2Bf%23g%25h/?:@&%C3%BC=%C3%A9");
  EXPECT_EQ(r.method, "GET");
  EXPECT_TRUE(r.body.empty());
}

TEST(VorlenURLRequestBuilderTest, TheUrlsOwnItemsAreForcedInUrlOrder) {
  auto b = builder("https://search.example/s?q=1&z=first&z=second&flag#frag");
  EXPECT_TRUE(b.containsQueryItemWithName("q"));
  EXPECT_TRUE(b.containsQueryItemWithName("flag"));
  b.defaultQueryItemWithName("q", "ignored");
  EXPECT_EQ(b.createUrlRequest().url, "https://search.example/s?flag&q=1&z=second#frag");
  b.forceQueryItemWithName("q", "2");
  EXPECT_EQ(b.createUrlRequest().url, "https://search.example/s?flag&q=2&z=second#frag");
}

TEST(VorlenURLRequestBuilderTest, ForceReplacesAndDefaultOnlyFillsGaps) {
  auto b = builder("http://127.0.0.1:8080/bag");
  b.defaultQueryItemWithName("v", "1");
  b.defaultQueryItem({"v", "2"});
  b.forceQueryItemsFromArray(std::nullopt);
  b.forceQueryItemsFromArray(std::vector<QueryItem>{{"k", "a"}, {"k", "b"}, {"v", std::nullopt}});
  EXPECT_EQ(b.createUrlRequest().url, "http://127.0.0.1:8080/bag?k=b&v");

  b.forceHttpHeaderWithName("X-Velmo-A", "forced");
  b.defaultHttpHeaderWithName("X-Velmo-A", "default");
  b.defaultHttpHeaderWithName("X-Velmo-B", std::nullopt);  // absent default leaves it unset
  b.defaultHttpHeaderWithName("X-Velmo-C", "c");
  EXPECT_FALSE(b.containsHttpHeaderWithName("X-Velmo-B"));
  HttpRequest r = b.createUrlRequest();
  EXPECT_EQ(r.headers, (std::map<std::string, std::string>{{"X-Velmo-A", "forced"}, {"X-Velmo-C", "c"}}));

  b.forceHttpHeaderWithName("X-Velmo-C", std::nullopt);  // absent force removes
  EXPECT_FALSE(b.containsHttpHeaderWithName("X-Velmo-C"));
  EXPECT_EQ(b.createUrlRequest().headers.size(), 1u);
}

TEST(VorlenURLRequestBuilderTest, NoItemsMeansNoQuery) {
  auto b = builder("https://search.example/warm?");
  EXPECT_EQ(b.createUrlRequest().url, "https://search.example/warm");
}

TEST(UrlComponentsTest, RejectsWhatIsNotAnAbsoluteUrlWithALogLine) {
  ScopedLogCapture capture;
  EXPECT_FALSE(UrlComponents::parse("/relative/path"));
  EXPECT_FALSE(UrlComponents::parse("http://"));
  EXPECT_FALSE(UrlComponents::parse("http://exa mple.com/"));
  EXPECT_FALSE(VorlenURLRequestBuilder::requestBuilderWithURL(""));
  EXPECT_GE(capture.sink().records().size(), 4u);
  for (const auto& r : capture.sink().records()) {
    EXPECT_EQ(r.level, LogLevel::Error);
    EXPECT_TRUE(r.message.starts_with("malformed URL")) << r.message;
  }
}

TEST(UrlComponentsTest, SplitsAndComposesWithoutChangingEncodedParts) {
  auto c = UrlComponents::parse("https://user:pw@[::1]:8443/a%20b/c?x=%41%zz&&y=1+2&=v#f");
  ASSERT_TRUE(c);
  EXPECT_EQ(c->scheme(), "https");
  EXPECT_EQ(c->host(), "[::1]");
  EXPECT_EQ(c->port(), 8443);
  EXPECT_EQ(c->path(), "/a%20b/c");
  EXPECT_EQ(c->string(), "https://user:pw@[::1]:8443/a%20b/c?x=%41%zz&&y=1+2&=v#f");
  EXPECT_EQ(c->queryItems(), (std::vector<QueryItem>{{"x", "A%zz"}, {"y", "1+2"}, {"", "v"}}));
}

}  // namespace
}  // namespace vorlen
