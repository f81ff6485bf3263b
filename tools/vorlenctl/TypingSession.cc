#include "TypingSession.h"

#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace vorlen::ctl {

namespace {

// Restores the terminal's mode however the session ends.
class RawTerminal {
 public:
  RawTerminal() {
    if (tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios raw = saved_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    active_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
  }
  ~RawTerminal() {
    if (active_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
  }
  bool active() const { return active_; }

 private:
  termios saved_{};
  bool active_ = false;
};

// Removes the last UTF-8 character of `text`.
void popCharacter(std::string& text) {
  while (!text.empty()) {
    const unsigned char c = static_cast<unsigned char>(text.back());
    text.pop_back();
    if ((c & 0xC0) != 0x80) break;  // not a continuation byte: the character's first byte is gone
  }
}

// Whether `text` ends with a whole UTF-8 character (a terminal sends a character's bytes one by one).
bool completeCharacterAtEnd(const std::string& text) {
  size_t lead = text.size();
  while (lead > 0 && (static_cast<unsigned char>(text[lead - 1]) & 0xC0) == 0x80) --lead;
  if (lead == 0) return false;
  const unsigned char first = static_cast<unsigned char>(text[lead - 1]);
  const size_t need = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
  return text.size() - (lead - 1) >= need;
}

}  // namespace

TypingSession::TypingSession(const CtlOutput& out, std::shared_ptr<VorlenClient> client,
                             std::optional<ServiceProbe> probe)
    : out_(out),
      client_(std::move(client)),
      probe_(std::move(probe)),
      // Fresh and growing from run to run: the daemon keeps only the newest search of a connection.
      nextQueryId_(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                             std::chrono::system_clock::now().time_since_epoch())
                                             .count())) {}

TypingSession::Keystroke TypingSession::type(const std::string& text) {
  Keystroke k;
  k.text = text;
  k.queryId = ++nextQueryId_;
  // -1: the service could not be asked.
  const long before = probe_ ? static_cast<long>(probe_->count("/search").value_or(SIZE_MAX)) : -1;

  VORSearchRequest request;
  request.queryId = k.queryId;
  request.clientQueryId = k.queryId;
  request.queryString = text;
  auto start = std::chrono::steady_clock::now();
  ClientResult<RequestReply> r = client_->request(request);
  k.milliseconds =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

  if (!r.ok()) {
    k.source = "error";
    k.error = r.error->message;
    return k;
  }
  if (r.value->error) {
    k.source = "error";
    k.error = r.value->error->describe();
    return k;
  }
  if (!r.value->reply) {
    k.source = "none";
    return k;
  }
  const auto& data = r.value->reply->data;
  nlohmann::json body = nlohmann::json::parse(data.begin(), data.end(), nullptr, false);
  if (body.is_object()) {
    if (auto q = body.find("query"); q != body.end() && q->is_string()) k.completion = q->get<std::string>();
    if (auto s = body.find("suggestions"); s != body.end() && s->is_array()) {
      for (const auto& item : *s) {
        if (item.is_object() && item.contains("suggestion") && item["suggestion"].is_string())
          k.suggestions.push_back(item["suggestion"].get<std::string>());
      }
    }
  }
  const long after = probe_ ? static_cast<long>(probe_->count("/search").value_or(SIZE_MAX)) : -1;
  if (before >= 0 && after >= 0) {
    k.source = after > before ? "network" : "cache";
    if (after > before) {
      if (auto items = probe_->lastItems("/search")) {
        if (auto lc = items->find("lc"); lc != items->end()) {
          k.localCompletion = lc->second;
          k.source = "local";
        }
      }
    }
  } else {
    k.source = "unknown";
  }
  return k;
}

std::string TypingSession::describe(const Keystroke& k) {
  std::string line = fmt::format("{:<24} {:<12} {:>8.2f} ms", "\"" + k.text + "\"", k.source, k.milliseconds);
  if (k.error) return line + "  " + *k.error;
  if (k.completion) line += "  -> " + *k.completion;
  if (k.localCompletion) line += "  [local completion: " + *k.localCompletion + "]";
  if (!k.suggestions.empty()) {
    line += "  (";
    for (size_t i = 0; i < k.suggestions.size() && i < 4; ++i) line += (i ? ", " : "") + k.suggestions[i];
    line += k.suggestions.size() > 4 ? ", ...)" : ")";
  }
  return line;
}

ExitCode TypingSession::typeLetters(const std::string& text, int delayMs) {
  nlohmann::ordered_json doc = nlohmann::ordered_json::array();
  bool failed = false;
  std::string typed;
  for (size_t i = 0; i < text.size();) {
    size_t n = 1;
    while (i + n < text.size() && (static_cast<unsigned char>(text[i + n]) & 0xC0) == 0x80) ++n;
    typed += text.substr(i, n);
    i += n;
    Keystroke k = type(typed);
    failed = failed || k.error.has_value();
    out_.line(describe(k));
    nlohmann::ordered_json entry = {
        {"text", k.text}, {"queryId", k.queryId}, {"source", k.source}, {"milliseconds", k.milliseconds}};
    if (k.completion) entry["completion"] = *k.completion;
    if (k.localCompletion) entry["localCompletion"] = *k.localCompletion;
    if (k.error) entry["error"] = *k.error;
    entry["suggestions"] = k.suggestions;
    doc.push_back(entry);
    if (delayMs > 0 && i < text.size()) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
  }
  out_.document(doc);
  return failed ? ExitCode::Failed : ExitCode::Ok;
}

ExitCode TypingSession::interactive() {
  if (!isatty(STDIN_FILENO)) {
    std::string line;
    ExitCode code = ExitCode::Ok;
    while (std::getline(std::cin, line)) {
      if (line.empty()) continue;
      if (typeLetters(line, 0) != ExitCode::Ok) code = ExitCode::Failed;
    }
    return code;
  }
  RawTerminal terminal;
  if (!terminal.active()) return out_.error(ExitCode::Failed, "cannot switch the terminal to raw input");
  std::fputs("type to search; Backspace edits, Enter or Esc ends\n", stdout);
  std::string text;
  for (;;) {
    std::fputs(fmt::format("\r\033[K> {}", text).c_str(), stdout);
    std::fflush(stdout);
    char c = 0;
    if (::read(STDIN_FILENO, &c, 1) != 1) break;
    if (c == '\n' || c == '\r' || c == 27 || c == 4 || c == 3) break;  // Enter, Esc, Ctrl-D, Ctrl-C
    if (c == 127 || c == 8) {
      popCharacter(text);
    } else if (static_cast<unsigned char>(c) >= 0x20) {
      text += c;
      // A multi-byte character is searched once it is complete.
      if (!completeCharacterAtEnd(text)) continue;
    } else {
      continue;
    }
    if (text.empty()) continue;
    Keystroke k = type(text);
    std::fputs(fmt::format("\r\033[K  {}\n", describe(k)).c_str(), stdout);
  }
  std::fputs("\n", stdout);
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
