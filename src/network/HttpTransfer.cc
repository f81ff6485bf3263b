#include "network/HttpTransfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/Log.h"

namespace vorlen {
namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}

long millisecondsClamped(double seconds) {
  if (!(seconds > 0)) return 0;  // 0 means "no limit" to libcurl
  double ms = seconds * 1000.0;
  if (ms >= static_cast<double>(std::numeric_limits<long>::max())) return std::numeric_limits<long>::max();
  return std::max(1L, static_cast<long>(ms));
}

bool hasLineBreak(const std::string& s) {
  return s.find_first_of("\r\n") != std::string::npos;
}

std::string trim(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r' || s[e - 1] == '\n')) --e;
  return std::string(s.substr(b, e - b));
}

Duration micros(CURL* easy, CURLINFO info) {
  curl_off_t v = 0;
  if (curl_easy_getinfo(easy, info, &v) != CURLE_OK) return Duration::zero();
  return std::chrono::microseconds(v);
}

std::filesystem::path temporaryFolder(const HttpSessionSettings& settings) {
  if (!settings.temporaryDirectory.empty()) return settings.temporaryDirectory;
  const char* env = std::getenv("TMPDIR");
  return (env && *env) ? std::filesystem::path(env) : std::filesystem::path("/tmp");
}

}  // namespace

std::variant<std::unique_ptr<HttpTransfer>, HttpError> HttpTransfer::create(
    const HttpRequest& request, const HttpSessionSettings& settings, Sink sink,
    const std::filesystem::path& uploadFile, Time fetchStart, Callbacks callbacks, CURLSH* share) {
  std::unique_ptr<HttpTransfer> t(new HttpTransfer());
  t->url_ = request.url;
  t->sink_ = sink;
  t->callbacks_ = std::move(callbacks);
  t->fetchStart_ = fetchStart;
  t->maxDownloadBytes_ = settings.maxDownloadBytes;
  t->share_ = share;
  t->idleTimeout_ = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(request.timeoutSeconds.value_or(settings.requestTimeoutSeconds)));
  t->easy_ = curl_easy_init();
  if (!t->easy_) return HttpError::make(HttpError::kUnknown, "cannot create a transfer", request.url);
  CURL* e = t->easy_;

  if (request.method.empty() || hasLineBreak(request.method) ||
      request.method.find(' ') != std::string::npos) {
    return HttpError::make(HttpError::kBadURL, "invalid method", request.url);
  }
  for (const auto& [name, value] : request.headers) {
    if (name.empty() || hasLineBreak(name) || name.find(':') != std::string::npos || hasLineBreak(value)) {
      return HttpError::make(HttpError::kBadURL, "invalid header field " + name, request.url);
    }
  }

  curl_easy_setopt(e, CURLOPT_URL, t->url_.c_str());
  curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t->errorBuffer_);
  curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(e, CURLOPT_MAXREDIRS, 16L);
  curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");  // every encoding libcurl can decode
  curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &HttpTransfer::onHeader);
  curl_easy_setopt(e, CURLOPT_HEADERDATA, t.get());
  curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &HttpTransfer::onWrite);
  curl_easy_setopt(e, CURLOPT_WRITEDATA, t.get());
  curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &HttpTransfer::onProgress);
  curl_easy_setopt(e, CURLOPT_XFERINFODATA, t.get());
  curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(e, CURLOPT_MAXAGE_CONN, static_cast<long>(settings.idleConnectionMaxAgeSeconds));
  curl_easy_setopt(e, CURLOPT_TCP_FASTOPEN, settings.tcpFastOpen ? 1L : 0L);
  curl_easy_setopt(e, CURLOPT_SSL_SESSIONID_CACHE, settings.tlsSessionReuse ? 1L : 0L);
  curl_easy_setopt(e, CURLOPT_HTTP_VERSION,
                   settings.http2Multiplexing ? long(CURL_HTTP_VERSION_2TLS) : long(CURL_HTTP_VERSION_1_1));
  // Waiting for a connection to tell whether it multiplexes pays only where TLS negotiates HTTP/2, which it
  // knows after the handshake. A cleartext connection speaks HTTP/1.1 and would learn nothing until its
  // response ends, so waiting there would queue a keystroke's request behind a slow earlier one.
  const bool tls = request.url.rfind("https://", 0) == 0;
  curl_easy_setopt(e, CURLOPT_PIPEWAIT, settings.http2Multiplexing && tls ? 1L : 0L);
  curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS,
                   millisecondsClamped(request.timeoutSeconds.value_or(settings.requestTimeoutSeconds)));
  curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, millisecondsClamped(settings.resourceTimeoutSeconds));

  bool sendsBody = false;
  if (!uploadFile.empty()) {
    t->uploadFd_ = ::open(uploadFile.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (t->uploadFd_ < 0 || ::fstat(t->uploadFd_, &st) != 0 || !S_ISREG(st.st_mode)) {
      int err = errno;
      log().error("cannot open upload file {}: {}", uploadFile.string(), std::strerror(err));
      return HttpError::make(err == ENOENT ? HttpError::kFileDoesNotExist : HttpError::kCannotOpenFile,
                             "cannot open upload file " + uploadFile.string(), request.url);
    }
    t->uploadSize_ = st.st_size;
    curl_easy_setopt(e, CURLOPT_POST, 1L);
    curl_easy_setopt(e, CURLOPT_READFUNCTION, &HttpTransfer::onRead);
    curl_easy_setopt(e, CURLOPT_READDATA, t.get());
    curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t->uploadSize_));
    if (request.method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    sendsBody = true;
  } else if (request.method == "HEAD") {
    curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
  } else if (request.method == "GET" && request.body.empty()) {
    curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
  } else {
    t->requestBody_ = request.body;
    static const char kEmpty[] = "";
    curl_easy_setopt(e, CURLOPT_POST, 1L);
    curl_easy_setopt(
        e, CURLOPT_POSTFIELDS,
        t->requestBody_.empty() ? kEmpty : reinterpret_cast<const char*>(t->requestBody_.data()));
    curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t->requestBody_.size()));
    if (request.method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    sendsBody = true;
  }

  for (const auto& [name, value] : request.headers) {
    // "Name;" is libcurl's spelling of a header sent with an empty value.
    std::string line = value.empty() ? name + ";" : name + ": " + value;
    t->headerList_ = curl_slist_append(t->headerList_, line.c_str());
  }
  // No 100-continue round trip, and no form content type the caller did not ask for.
  if (!request.header("Expect")) t->headerList_ = curl_slist_append(t->headerList_, "Expect:");
  if (sendsBody && !request.header("Content-Type")) {
    t->headerList_ = curl_slist_append(t->headerList_, "Content-Type:");
  }
  curl_easy_setopt(e, CURLOPT_HTTPHEADER, t->headerList_);

  if (sink == Sink::File) {
    std::string path = (temporaryFolder(settings) / "com.velmo.vorlend.download_XXXXXX").string();
    int fd = ::mkostemp(path.data(), O_CLOEXEC);
    if (fd < 0 || ::fchmod(fd, 0600) != 0) {
      int err = errno;
      if (fd >= 0) {
        ::close(fd);
        ::unlink(path.c_str());
      }
      log().error("cannot create download file {}: {}", path, std::strerror(err));
      return HttpError::make(HttpError::kCannotWriteToFile, "cannot create download file", request.url);
    }
    t->downloadFd_ = fd;
    t->downloadPath_ = path;
  }
  t->markActivity();
  return t;
}

HttpTransfer::~HttpTransfer() {
  if (easy_) curl_easy_cleanup(easy_);
  if (headerList_) curl_slist_free_all(headerList_);
  closeFiles();
  if (!downloadPath_.empty()) ::unlink(downloadPath_.c_str());
}

void HttpTransfer::closeFiles() {
  if (downloadFd_ >= 0) ::close(downloadFd_);
  if (uploadFd_ >= 0) ::close(uploadFd_);
  downloadFd_ = uploadFd_ = -1;
}

size_t HttpTransfer::onHeader(char* buffer, size_t size, size_t count, void* self) {
  auto* t = static_cast<HttpTransfer*>(self);
  size_t n = size * count;
  t->markActivity();
  std::string_view line(buffer, n);
  if (line.starts_with("HTTP/")) {
    t->headers_.clear();
  } else if ((line.starts_with(" ") || line.starts_with("\t")) && !t->headers_.empty()) {
    std::string more = trim(line);
    if (!more.empty()) t->headers_.back().second += " " + more;
  } else if (size_t colon = line.find(':'); colon != std::string_view::npos && colon > 0) {
    t->headers_.emplace_back(trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
  }
  return n;
}

size_t HttpTransfer::onWrite(char* buffer, size_t size, size_t count, void* self) {
  auto* t = static_cast<HttpTransfer*>(self);
  size_t n = size * count;
  t->markActivity();
  if (t->sink_ == Sink::Memory) {
    t->body_.insert(t->body_.end(), buffer, buffer + n);
    return n;
  }
  t->downloaded_ += n;
  if (t->maxDownloadBytes_ > 0 && t->downloaded_ > t->maxDownloadBytes_) {
    t->tooLarge_ = true;
    return 0;  // libcurl fails the transfer with a write error
  }
  size_t done = 0;
  while (done < n) {
    ssize_t w = ::write(t->downloadFd_, buffer + done, n - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      log().error("cannot write download file {}: {}", t->downloadPath_.string(), std::strerror(errno));
      t->writeFailed_ = true;
      return 0;  // libcurl fails the transfer with a write error
    }
    done += static_cast<size_t>(w);
  }
  return n;
}

size_t HttpTransfer::onRead(char* buffer, size_t size, size_t count, void* self) {
  auto* t = static_cast<HttpTransfer*>(self);
  t->markActivity();
  for (;;) {
    ssize_t r = ::read(t->uploadFd_, buffer, size * count);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      log().error("cannot read upload file: {}", std::strerror(errno));
      t->readFailed_ = true;
      return CURL_READFUNC_ABORT;
    }
    return static_cast<size_t>(r);
  }
}

int HttpTransfer::onProgress(void* self, curl_off_t /*dlTotal*/, curl_off_t dlNow, curl_off_t ulTotal,
                             curl_off_t ulNow) {
  auto* t = static_cast<HttpTransfer*>(self);
  if (dlNow != t->lastDownloaded_ || ulNow != t->lastUploaded_) t->markActivity();
  t->lastDownloaded_ = dlNow;
  t->lastUploaded_ = ulNow;
  if (t->callbacks_.sentBody && ulNow > t->uploadReported_) {
    int64_t expected = ulTotal > 0 ? ulTotal : t->uploadSize_;
    t->callbacks_.sentBody(ulNow - t->uploadReported_, ulNow, expected);
    t->uploadReported_ = ulNow;
  }
  return 0;
}

TaskMetrics HttpTransfer::readMetrics() const {
  TaskMetrics m;
  CURL* e = easy_;
  m.fetchStart = fetchStart_;
  m.domainLookupEnd = micros(e, CURLINFO_NAMELOOKUP_TIME_T);
  m.connectEnd = micros(e, CURLINFO_CONNECT_TIME_T);
  m.secureConnectionEnd = micros(e, CURLINFO_APPCONNECT_TIME_T);
  m.requestStart = micros(e, CURLINFO_PRETRANSFER_TIME_T);
  m.responseStart = micros(e, CURLINFO_STARTTRANSFER_TIME_T);
  m.responseEnd = micros(e, CURLINFO_TOTAL_TIME_T);
  m.redirectTime = micros(e, CURLINFO_REDIRECT_TIME_T);
  curl_easy_getinfo(e, CURLINFO_REDIRECT_COUNT, &m.redirectCount);

  long requestSize = 0, headerSize = 0;
  curl_off_t uploaded = 0, downloaded = 0;
  curl_easy_getinfo(e, CURLINFO_REQUEST_SIZE, &requestSize);
  curl_easy_getinfo(e, CURLINFO_HEADER_SIZE, &headerSize);
  curl_easy_getinfo(e, CURLINFO_SIZE_UPLOAD_T, &uploaded);
  curl_easy_getinfo(e, CURLINFO_SIZE_DOWNLOAD_T, &downloaded);
  m.requestBytesSent = requestSize;
  m.headerBytesReceived = headerSize;
  m.bodyBytesSent = uploaded;
  m.bodyBytesReceived = downloaded;

  long connects = 0;
  char* text = nullptr;
  curl_easy_getinfo(e, CURLINFO_NUM_CONNECTS, &connects);
  if (curl_easy_getinfo(e, CURLINFO_LOCAL_IP, &text) == CURLE_OK && text) m.localAddress = text;
  curl_easy_getinfo(e, CURLINFO_LOCAL_PORT, &m.localPort);
  if (curl_easy_getinfo(e, CURLINFO_PRIMARY_IP, &text) == CURLE_OK && text) m.remoteAddress = text;
  curl_easy_getinfo(e, CURLINFO_PRIMARY_PORT, &m.remotePort);
  // A transfer that reached a peer without opening a connection took one from the pool.
  m.reusedConnection = connects == 0 && m.remotePort != 0;

  long version = 0;
  curl_easy_getinfo(e, CURLINFO_HTTP_VERSION, &version);
  switch (version) {
    case CURL_HTTP_VERSION_1_0:
      m.protocolName = "http/1.0";
      break;
    case CURL_HTTP_VERSION_1_1:
      m.protocolName = "http/1.1";
      break;
    case CURL_HTTP_VERSION_2_0:
      m.protocolName = "h2";
      break;
    case CURL_HTTP_VERSION_3:
      m.protocolName = "h3";
      break;
    default:
      break;
  }
  return m;
}

void HttpTransfer::complete(CURLcode code) {
  Result r;
  r.metrics = readMetrics();
  long status = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  if (status > 0) {
    HttpResponse response;
    response.status = status;
    response.headers = std::move(headers_);
    char* effective = nullptr;
    curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &effective);
    response.url = effective ? effective : url_;
    r.response = std::move(response);
  }
  if (code == CURLE_OK) {
    if (sink_ == Sink::Memory) {
      r.data = std::move(body_);
    } else {
      closeFiles();
      r.file = std::move(downloadPath_);
      downloadPath_.clear();
    }
  } else if (tooLarge_) {
    r.error = HttpError::make(HttpError::kDataLengthExceedsMaximum, "download larger than the session allows",
                              url_);
  } else if (writeFailed_) {
    r.error = HttpError::make(HttpError::kCannotWriteToFile, "cannot write download file", url_);
  } else if (readFailed_) {
    r.error = HttpError::make(HttpError::kCannotOpenFile, "cannot read upload file", url_);
  } else {
    long osErrno = 0;
    curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &osErrno);
    r.error = HttpError::fromCurl(code, osErrno, url_, errorBuffer_);
  }
  finish(std::move(r));
}

void HttpTransfer::fail(HttpError error) {
  Result r;
  r.metrics = readMetrics();
  r.error = std::move(error);
  if (r.error->url.empty()) r.error->url = url_;
  finish(std::move(r));
}

void HttpTransfer::finish(Result result) {
  if (finished_) return;
  finished_ = true;
  closeFiles();
  if (!downloadPath_.empty()) {
    ::unlink(downloadPath_.c_str());
    downloadPath_.clear();
  }
  if (callbacks_.finished) callbacks_.finished(std::move(result));
}

}  // namespace vorlen
