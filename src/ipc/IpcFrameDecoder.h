// IpcFrameDecoder: splits the byte stream of one connection into frames (see IpcFraming) and hands each
// frame's payload out together with the descriptors that came with it. Payloads are not parsed here; the
// connection parses them on its own queue so that the I/O thread only moves bytes.
//
// Descriptors: a sender passes descriptors with the write that starts the frame they belong to, and that
// write carries no byte of a later frame. A read returns the descriptors of the last chunk it consumed, so
// a batch belongs to the frame that contains the last byte of the read that delivered it. At most
// `maxDescriptors` are kept per frame; the rest are closed and counted in droppedDescriptors.
//
// Errors: a header announcing more than `maxPayloadBytes` puts the decoder into a failed state; next()
// then always reports Error. The caller closes the connection. The buffer grows with the bytes received,
// never with the length a peer announces.
//
// Threading: not thread-safe; one connection's I/O thread uses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace vorlen {

struct IpcRawFrame {
  std::vector<uint8_t> payload;
  std::vector<UniqueFd> descriptors;
  size_t droppedDescriptors = 0;
};

class IpcFrameDecoder {
 public:
  enum class Status { Frame, NeedMore, Error };

  IpcFrameDecoder(size_t maxPayloadBytes, size_t maxDescriptors);

  // Appends bytes read from the socket and the descriptors that arrived with them.
  void append(std::span<const uint8_t> bytes, std::vector<UniqueFd> descriptors = {});
  // Frame: *out holds the next complete frame. NeedMore: no complete frame is buffered. Error: the stream
  // is unusable; *error says why on the first Error only.
  Status next(IpcRawFrame* out, std::string* error);

  // True while some bytes of an incomplete frame are buffered (a stalled peer leaves it so).
  bool midFrame() const { return !failed_ && buffer_.size() > consumed_; }
  bool failed() const { return failed_; }

 private:
  static constexpr size_t kRetainedCapacity = size_t{256} << 10;

  struct Batch {
    uint64_t lastByte;  // stream offset of the last byte of the read that delivered the batch
    std::vector<UniqueFd> fds;
  };

  size_t maxPayloadBytes_;
  size_t maxDescriptors_;
  std::vector<uint8_t> buffer_;
  size_t consumed_ = 0;        // bytes of buffer_ already handed out
  uint64_t streamOffset_ = 0;  // stream offset of buffer_[consumed_]
  std::deque<Batch> batches_;
  bool failed_ = false;
};

}  // namespace vorlen
