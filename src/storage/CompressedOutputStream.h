// CompressedOutputStream: an OutputStream that compresses what is written to it with raw DEFLATE (RFC
// 1951: no zlib or gzip wrapper) into a destination OutputStream, through one 4096-byte output buffer,
// and keeps a running SHA-512 of the uncompressed bytes.
//
// write() returns the number of input bytes consumed, or -1 once the encoder (or the destination) has
// failed. close() finishes the deflate stream, writing each finishing round's output to the
// destination, finishes the digest, releases the encoder and closes the destination. An empty payload
// still gives a valid, finished deflate stream and the digest of nothing.
// dataDigestForStream() is the lowercase hexadecimal SHA-512 (128 characters), valid after close().
//
// Threading: one thread at a time.
#pragma once

#include <zlib.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "storage/OutputStream.h"

struct evp_md_ctx_st;

namespace vorlen {

class CompressedOutputStream final : public OutputStream {
 public:
  static constexpr size_t kBufferBytes = 4096;
  // Encoder status.
  static constexpr int kStatusOk = 0;
  static constexpr int kStatusEnd = 1;
  static constexpr int kStatusError = -1;

  // `level` is zlib's compression level (default: zlib's default, 6).
  explicit CompressedOutputStream(std::shared_ptr<OutputStream> outputStream,
                                  int level = Z_DEFAULT_COMPRESSION);
  ~CompressedOutputStream() override;
  CompressedOutputStream(const CompressedOutputStream&) = delete;
  CompressedOutputStream& operator=(const CompressedOutputStream&) = delete;

  // Opens the destination.
  void open() override;
  ssize_t write(const uint8_t* buffer, size_t length) override;
  void close() override;
  // 0 when the encoder failed; the destination's error when it failed; absent otherwise.
  std::optional<int> streamError() const override;

  std::string dataDigestForStream() const;
  int status() const { return status_; }

 private:
  // Writes the used part of the buffer to the destination; false (status error) when that fails.
  bool _drainBuffer();

  const std::shared_ptr<OutputStream> outputStream_;
  z_stream stream_{};
  bool encoderLive_ = false;
  bool closed_ = false;
  std::array<uint8_t, kBufferBytes> destBuffer_{};
  int status_ = kStatusOk;
  evp_md_ctx_st* sha512Context_ = nullptr;
  std::array<uint8_t, 64> digest_{};
  bool digestReady_ = false;
};

}  // namespace vorlen
