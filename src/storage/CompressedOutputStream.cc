#include "storage/CompressedOutputStream.h"

#include <openssl/evp.h>

#include <algorithm>

#include "base/Log.h"

namespace vorlen {
namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryUploadManager);
}

}  // namespace

CompressedOutputStream::CompressedOutputStream(std::shared_ptr<OutputStream> outputStream, int level)
    : outputStream_(std::move(outputStream)) {
  // windowBits -15: raw DEFLATE, no header or trailer; memLevel 8 is zlib's default.
  if (deflateInit2(&stream_, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) == Z_OK) {
    encoderLive_ = true;
  } else {
    log().error("cannot start the deflate encoder");
    status_ = kStatusError;
  }
  sha512Context_ = EVP_MD_CTX_new();
  if (!sha512Context_ || EVP_DigestInit_ex(sha512Context_, EVP_sha512(), nullptr) != 1) {
    log().error("cannot start the SHA-512 digest");
    status_ = kStatusError;
  }
  if (!outputStream_) status_ = kStatusError;
}

CompressedOutputStream::~CompressedOutputStream() {
  if (encoderLive_) deflateEnd(&stream_);
  if (sha512Context_) EVP_MD_CTX_free(sha512Context_);
}

void CompressedOutputStream::open() {
  if (outputStream_) outputStream_->open();
}

bool CompressedOutputStream::_drainBuffer() {
  const size_t used = kBufferBytes - stream_.avail_out;
  if (used > 0 && outputStream_->write(destBuffer_.data(), used) != static_cast<ssize_t>(used)) {
    status_ = kStatusError;
    return false;
  }
  stream_.next_out = destBuffer_.data();
  stream_.avail_out = kBufferBytes;
  return true;
}

ssize_t CompressedOutputStream::write(const uint8_t* buffer, size_t length) {
  if (status_ != kStatusOk || closed_) return -1;
  if (length == 0) return 0;
  EVP_DigestUpdate(sha512Context_, buffer, length);
  // zlib counts in uInt; feed very large writes in pieces.
  size_t consumed = 0;
  while (consumed < length && status_ == kStatusOk) {
    const size_t piece = std::min<size_t>(length - consumed, 1u << 30);
    stream_.next_in = const_cast<Bytef*>(buffer + consumed);
    stream_.avail_in = static_cast<uInt>(piece);
    while (stream_.avail_in > 0 && status_ == kStatusOk) {
      stream_.next_out = destBuffer_.data();
      stream_.avail_out = kBufferBytes;
      int rc = deflate(&stream_, Z_NO_FLUSH);
      if (rc != Z_OK && rc != Z_BUF_ERROR) {
        status_ = kStatusError;
        break;
      }
      _drainBuffer();
    }
    consumed += piece - stream_.avail_in;
  }
  stream_.next_in = nullptr;
  stream_.avail_in = 0;
  return status_ == kStatusOk ? static_cast<ssize_t>(consumed) : -1;
}

void CompressedOutputStream::close() {
  if (closed_) return;
  closed_ = true;
  while (status_ == kStatusOk) {
    stream_.next_out = destBuffer_.data();
    stream_.avail_out = kBufferBytes;
    int rc = deflate(&stream_, Z_FINISH);
    if (rc == Z_STREAM_END) {
      status_ = kStatusEnd;
    } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
      status_ = kStatusError;
    }
    if (!_drainBuffer()) break;
  }
  if (sha512Context_) {
    unsigned int length = 0;
    digestReady_ =
        EVP_DigestFinal_ex(sha512Context_, digest_.data(), &length) == 1 && length == digest_.size();
  }
  if (encoderLive_) {
    deflateEnd(&stream_);
    encoderLive_ = false;
  }
  if (outputStream_) outputStream_->close();
}

std::optional<int> CompressedOutputStream::streamError() const {
  if (outputStream_) {
    if (auto e = outputStream_->streamError()) return e;
  }
  if (status_ == kStatusError) return 0;
  return std::nullopt;
}

std::string CompressedOutputStream::dataDigestForStream() const {
  if (!digestReady_) return {};
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(digest_.size() * 2);
  for (uint8_t b : digest_) {
    out += kHex[b >> 4];
    out += kHex[b & 0xf];
  }
  return out;
}

}  // namespace vorlen
