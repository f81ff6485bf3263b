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
    : _outputStream(std::move(outputStream)) {
  // windowBits -15: raw DEFLATE, no header or trailer; memLevel 8 is zlib's default.
  if (deflateInit2(&_stream, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) == Z_OK) {
    _encoderLive = true;
  } else {
    log().error("cannot start the deflate encoder");
    _status = kStatusError;
  }
  _sha512Context = EVP_MD_CTX_new();
  if (!_sha512Context || EVP_DigestInit_ex(_sha512Context, EVP_sha512(), nullptr) != 1) {
    log().error("cannot start the SHA-512 digest");
    _status = kStatusError;
  }
  if (!_outputStream) _status = kStatusError;
}

CompressedOutputStream::~CompressedOutputStream() {
  if (_encoderLive) deflateEnd(&_stream);
  if (_sha512Context) EVP_MD_CTX_free(_sha512Context);
}

void CompressedOutputStream::open() {
  if (_outputStream) _outputStream->open();
}

bool CompressedOutputStream::_drainBuffer() {
  const size_t used = kBufferBytes - _stream.avail_out;
  if (used > 0 && _outputStream->write(_destBuffer.data(), used) != static_cast<ssize_t>(used)) {
    _status = kStatusError;
    return false;
  }
  _stream.next_out = _destBuffer.data();
  _stream.avail_out = kBufferBytes;
  return true;
}

ssize_t CompressedOutputStream::write(const uint8_t* buffer, size_t length) {
  if (_status != kStatusOk || _closed) return -1;
  if (length == 0) return 0;
  EVP_DigestUpdate(_sha512Context, buffer, length);
  // zlib counts in uInt; feed very large writes in pieces.
  size_t consumed = 0;
  while (consumed < length && _status == kStatusOk) {
    const size_t piece = std::min<size_t>(length - consumed, 1u << 30);
    _stream.next_in = const_cast<Bytef*>(buffer + consumed);
    _stream.avail_in = static_cast<uInt>(piece);
    while (_stream.avail_in > 0 && _status == kStatusOk) {
      _stream.next_out = _destBuffer.data();
      _stream.avail_out = kBufferBytes;
      int rc = deflate(&_stream, Z_NO_FLUSH);
      if (rc != Z_OK && rc != Z_BUF_ERROR) {
        _status = kStatusError;
        break;
      }
      _drainBuffer();
    }
    consumed += piece - _stream.avail_in;
  }
  _stream.next_in = nullptr;
  _stream.avail_in = 0;
  return _status == kStatusOk ? static_cast<ssize_t>(consumed) : -1;
}

void CompressedOutputStream::close() {
  if (_closed) return;
  _closed = true;
  while (_status == kStatusOk) {
    _stream.next_out = _destBuffer.data();
    _stream.avail_out = kBufferBytes;
    int rc = deflate(&_stream, Z_FINISH);
    if (rc == Z_STREAM_END) {
      _status = kStatusEnd;
    } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
      _status = kStatusError;
    }
    if (!_drainBuffer()) break;
  }
  if (_sha512Context) {
    unsigned int length = 0;
    _digestReady =
        EVP_DigestFinal_ex(_sha512Context, _digest.data(), &length) == 1 && length == _digest.size();
  }
  if (_encoderLive) {
    deflateEnd(&_stream);
    _encoderLive = false;
  }
  if (_outputStream) _outputStream->close();
}

std::optional<int> CompressedOutputStream::streamError() const {
  if (_outputStream) {
    if (auto e = _outputStream->streamError()) return e;
  }
  if (_status == kStatusError) return 0;
  return std::nullopt;
}

std::string CompressedOutputStream::dataDigestForStream() const {
  if (!_digestReady) return {};
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(_digest.size() * 2);
  for (uint8_t b : _digest) {
    out += kHex[b >> 4];
    out += kHex[b & 0xf];
  }
  return out;
}

}  // namespace vorlen
