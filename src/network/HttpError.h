// HttpError: a transport failure of an HTTP task (never an HTTP error status: a response with any status
// is a success at this level). Domain "VORURLErrorDomain"; the codes are the URL-loading codes that the
// rest of the daemon compares against (cancelled -999, timed out -1001, ...).
//
// Threading: plain value type.
#pragma once

#include <string>

namespace vorlen {

inline constexpr const char* kVORURLErrorDomain = "VORURLErrorDomain";

struct HttpError {
  enum Code : long {
    kUnknown = -1,
    kCancelled = -999,
    kBadURL = -1000,
    kTimedOut = -1001,
    kUnsupportedURL = -1002,
    kCannotFindHost = -1003,
    kCannotConnectToHost = -1004,
    kNetworkConnectionLost = -1005,
    kHTTPTooManyRedirects = -1007,
    kBadServerResponse = -1011,
    kCannotDecodeContentData = -1016,
    kNotConnectedToInternet = -1009,
    kFileDoesNotExist = -1100,
    kDataLengthExceedsMaximum = -1103,
    kSecureConnectionFailed = -1200,
    kServerCertificateUntrusted = -1202,
    kCannotOpenFile = -3001,
    kCannotWriteToFile = -3003,
  };

  std::string domain = kVORURLErrorDomain;
  long code = kUnknown;
  std::string message;
  std::string url;  // the URL that failed

  // Maps a libcurl result (with the socket errno libcurl saw, 0 if none) to a code; message from curl.
  static HttpError fromCurl(int curlCode, long osErrno, std::string url, std::string detail);
  static HttpError make(long code, std::string message, std::string url = {});
};

}  // namespace vorlen
