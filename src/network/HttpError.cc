#include "network/HttpError.h"

#include <curl/curl.h>

#include <cerrno>

namespace vorlen {

HttpError HttpError::make(long code, std::string message, std::string url) {
  HttpError e;
  e.code = code;
  e.message = std::move(message);
  e.url = std::move(url);
  return e;
}

HttpError HttpError::fromCurl(int curlCode, long osErrno, std::string url, std::string detail) {
  long code = kUnknown;
  switch (static_cast<CURLcode>(curlCode)) {
    case CURLE_UNSUPPORTED_PROTOCOL:
      code = kUnsupportedURL;
      break;
    case CURLE_URL_MALFORMAT:
      code = kBadURL;
      break;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      code = kCannotFindHost;
      break;
    case CURLE_COULDNT_CONNECT:
      code = (osErrno == ENETUNREACH || osErrno == ENETDOWN) ? kNotConnectedToInternet : kCannotConnectToHost;
      break;
    case CURLE_OPERATION_TIMEDOUT:
      code = kTimedOut;
      break;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      code = kNetworkConnectionLost;
      break;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP3:
      code = kBadServerResponse;
      break;
    case CURLE_TOO_MANY_REDIRECTS:
      code = kHTTPTooManyRedirects;
      break;
    case CURLE_BAD_CONTENT_ENCODING:
      code = kCannotDecodeContentData;
      break;
    case CURLE_FILESIZE_EXCEEDED:
      code = kDataLengthExceedsMaximum;
      break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      code = kSecureConnectionFailed;
      break;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      code = kServerCertificateUntrusted;
      break;
    case CURLE_WRITE_ERROR:
      code = kCannotWriteToFile;
      break;
    case CURLE_READ_ERROR:
      code = kCannotOpenFile;
      break;
    case CURLE_ABORTED_BY_CALLBACK:
      code = kCancelled;
      break;
    default:
      code = kUnknown;
      break;
  }
  std::string message = curl_easy_strerror(static_cast<CURLcode>(curlCode));
  if (!detail.empty()) message += ": " + detail;
  return make(code, std::move(message), std::move(url));
}

}  // namespace vorlen
