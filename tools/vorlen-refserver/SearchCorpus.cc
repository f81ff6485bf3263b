#include "SearchCorpus.h"

#include <algorithm>
#include <cctype>

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;

std::string slug(std::string_view text) {
  std::string out;
  for (char c : text) out += std::isalnum(static_cast<unsigned char>(c)) ? c : '-';
  return out;
}

Json resultsFor(std::string_view query, const std::string& base, int first, int count) {
  Json results = Json::array();
  for (int i = first; i < first + count; ++i) {
    results.push_back(Json{{"title", std::string(query) + " - result " + std::to_string(i + 1)},
                           {"url", base + "/r/" + slug(query) + "/" + std::to_string(i + 1)},
                           {"rank", i + 1}});
  }
  return results;
}

}  // namespace

const std::vector<SearchCorpus::Entry>& SearchCorpus::entries() {
  // Popular queries of a made-up week, with made-up popularity. Several share prefixes on purpose
  // ("new", "news", "new york ...", "weather ...") so that continued typing exercises completion.
  static const std::vector<Entry> kEntries = [] {
    std::vector<Entry> e = {
        {"news", 0.97},
        {"weather", 0.95},
        {"weather tomorrow", 0.71},
        {"weather this weekend", 0.52},
        {"new york times", 0.90},
        {"new york weather", 0.66},
        {"new york marathon", 0.41},
        {"netflix", 0.93},
        {"nearby restaurants", 0.74},
        {"nba scores", 0.82},
        {"nfl standings", 0.79},
        {"translate", 0.88},
        {"train times", 0.61},
        {"time in tokyo", 0.58},
        {"timer 5 minutes", 0.64},
        {"maps", 0.91},
        {"movies near me", 0.77},
        {"music charts", 0.55},
        {"mortgage calculator", 0.49},
        {"stock market today", 0.80},
        {"stocks", 0.69},
        {"sunrise time", 0.43},
        {"super bowl", 0.76},
        {"solar eclipse", 0.47},
        {"recipes", 0.72},
        {"recipe for pancakes", 0.63},
        {"restaurants open now", 0.60},
        {"flight status", 0.68},
        {"flights to paris", 0.57},
        {"football", 0.81},
        {"fuel prices", 0.50},
        {"calculator", 0.84},
        {"calendar 2026", 0.53},
        {"coffee shops", 0.46},
        {"currency converter", 0.67},
        {"premier league", 0.78},
        {"pizza delivery", 0.62},
        {"podcasts", 0.44},
        {"python tutorial", 0.59},
        {"election results", 0.73},
        {"euro to dollar", 0.65},
        {"earthquake today", 0.48},
        {"dictionary", 0.56},
        {"dog breeds", 0.42},
        {"holiday calendar", 0.40},
        {"horoscope", 0.54},
        {"how to tie a tie", 0.45},
        {"lottery results", 0.70},
        {"live scores", 0.75},
        {"learn spanish", 0.39},
    };
    std::stable_sort(e.begin(), e.end(), [](const Entry& a, const Entry& b) { return a.score > b.score; });
    return e;
  }();
  return kEntries;
}

std::string SearchCorpus::lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::vector<SearchCorpus::Entry> SearchCorpus::completions(std::string_view prefix, size_t limit) {
  const std::string p = lower(prefix);
  std::vector<Entry> out;
  for (const Entry& e : entries()) {
    if (out.size() >= limit) break;
    if (e.query.compare(0, p.size(), p) == 0) out.push_back(e);
  }
  return out;
}

std::vector<std::string> SearchCorpus::splitLocalCompletions(std::string_view lc) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= lc.size()) {
    size_t end = lc.find(':', start);
    if (end == std::string_view::npos) end = lc.size();
    if (end > start) out.emplace_back(lc.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

Json SearchCorpus::search(std::string_view typed, int maxAge, const std::string& base,
                          const std::vector<std::string>& localCompletions) {
  const std::string p = lower(typed);
  std::vector<std::string> local;
  for (const std::string& c : localCompletions) {
    const std::string l = lower(c);
    if (l.compare(0, p.size(), p) == 0 && std::find(local.begin(), local.end(), l) == local.end())
      local.push_back(l);
  }
  const std::vector<Entry> found = completions(typed);
  Json suggestions = Json::array();
  for (const std::string& l : local)
    suggestions.push_back(Json{{"suggestion", l}, {"score", 1.0}, {"local", true}});
  for (const Entry& e : found) {
    if (std::find(local.begin(), local.end(), e.query) == local.end())
      suggestions.push_back(Json{{"suggestion", e.query}, {"score", e.score}});
  }
  Json body;
  body["query"] = !local.empty() ? local.front() : found.empty() ? p : found.front().query;
  body["max_age"] = maxAge;
  body["completion_score"] = !local.empty() ? 1.0 : found.empty() ? 0.0 : found.front().score;
  body["status"] = "OK";
  body["results"] = resultsFor(body["query"].get<std::string>(), base, 0, 3);
  body["suggestions"] = suggestions;
  return body;
}

Json SearchCorpus::zeroKeyword(int maxAge, const std::string& base) {
  Json suggestions = Json::array();
  for (size_t i = 0; i < 5 && i < entries().size(); ++i)
    suggestions.push_back(Json{{"suggestion", entries()[i].query}, {"score", entries()[i].score}});
  Json body;
  body["query"] = "";
  body["max_age"] = maxAge;
  body["status"] = "OK";
  body["results"] = resultsFor("trending", base, 0, 2);
  body["suggestions"] = suggestions;
  return body;
}

Json SearchCorpus::moreResults(std::string_view query, const std::string& base) {
  Json body;
  body["query"] = lower(query);
  body["status"] = "OK";
  body["results"] = resultsFor(lower(query), base, 3, 5);
  return body;
}

Json SearchCorpus::card(std::string_view query, const std::string& base) {
  Json body;
  body["query"] = lower(query);
  body["status"] = "OK";
  body["card"] = Json{{"title", lower(query)},
                      {"summary", "A card about " + lower(query) + "."},
                      {"url", base + "/r/" + slug(lower(query)) + "/card"}};
  return body;
}

Json SearchCorpus::lookup(std::string_view query, const std::string& base) {
  Json body;
  body["query"] = lower(query);
  body["status"] = "OK";
  body["results"] = Json::array({Json{{"title", lower(query)},
                                      {"definition", "What " + lower(query) + " means."},
                                      {"url", base + "/r/" + slug(lower(query)) + "/lookup"}},
                                 Json{{"title", lower(query) + " in context"},
                                      {"definition", "What " + lower(query) + " means where you read it."},
                                      {"url", base + "/r/" + slug(lower(query)) + "/lookup-context"},
                                      {"lookup_instructions", Json{{"completion", lower(query)}}}}});
  return Json::array({body});
}

Json SearchCorpus::flights(std::string_view query) {
  Json list = Json::array();
  const size_t dash = query.find('-');
  if (dash != std::string_view::npos && dash > 0 && dash + 1 < query.size() &&
      query.find('-', dash + 1) == std::string_view::npos) {
    const std::string carrier(query.substr(0, dash));
    const std::string number(query.substr(dash + 1));
    list.push_back(Json{{"carrier_code", carrier},
                        {"flight_number", number},
                        {"flightId", carrier + number + "-1"},
                        {"status", "on time"},
                        {"departure", "SFO"},
                        {"arrival", "JFK"}});
  }
  return Json{{"status", "OK"}, {"flights", list}};
}

}  // namespace vorlen
