#include "ipc/IpcFrameDecoder.h"

#include <fmt/format.h>

#include "ipc/IpcFraming.h"

namespace vorlen {

IpcFrameDecoder::IpcFrameDecoder(size_t maxPayloadBytes, size_t maxDescriptors)
    : maxPayloadBytes_(maxPayloadBytes), maxDescriptors_(maxDescriptors) {}

void IpcFrameDecoder::append(std::span<const uint8_t> bytes, std::vector<UniqueFd> descriptors) {
  if (failed_) return;  // descriptors are closed as the vector goes
  uint64_t end = streamOffset_ + (buffer_.size() - consumed_) + bytes.size();
  if (!descriptors.empty()) {
    // Descriptors never arrive without data on a stream socket; should they, they go with the next byte.
    batches_.push_back(Batch{bytes.empty() ? end : end - 1, std::move(descriptors)});
  }
  // Compact before growing so that a long-lived connection does not keep every byte it ever received.
  if (consumed_ > 0 && (consumed_ == buffer_.size() || consumed_ >= buffer_.size() / 2)) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_));
    consumed_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

IpcFrameDecoder::Status IpcFrameDecoder::next(IpcRawFrame* out, std::string* error) {
  if (failed_) return Status::Error;  // the reason was given the first time
  size_t available = buffer_.size() - consumed_;
  if (available < IpcFraming::kHeaderBytes) return Status::NeedMore;
  uint32_t length =
      IpcFraming::payloadLength(std::span(buffer_).subspan(consumed_, IpcFraming::kHeaderBytes));
  if (length > maxPayloadBytes_) {
    failed_ = true;
    if (error)
      *error = fmt::format("frame length {} exceeds the limit of {} bytes", length, maxPayloadBytes_);
    buffer_.clear();
    buffer_.shrink_to_fit();
    consumed_ = 0;
    batches_.clear();
    return Status::Error;
  }
  size_t frameBytes = IpcFraming::kHeaderBytes + length;
  if (available < frameBytes) return Status::NeedMore;

  auto begin = buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_ + IpcFraming::kHeaderBytes);
  out->payload.assign(begin, begin + length);
  out->descriptors.clear();
  out->droppedDescriptors = 0;
  uint64_t frameEnd = streamOffset_ + frameBytes;
  while (!batches_.empty() && batches_.front().lastByte < frameEnd) {
    for (UniqueFd& fd : batches_.front().fds) {
      if (out->descriptors.size() < maxDescriptors_) {
        out->descriptors.push_back(std::move(fd));
      } else {
        fd.reset();
        ++out->droppedDescriptors;
      }
    }
    batches_.pop_front();
  }
  consumed_ += frameBytes;
  streamOffset_ = frameEnd;
  if (consumed_ == buffer_.size()) {
    buffer_.clear();
    consumed_ = 0;
    // Do not keep the memory of one large frame for the rest of the connection's life.
    if (buffer_.capacity() > kRetainedCapacity) buffer_.shrink_to_fit();
  }
  return Status::Frame;
}

}  // namespace vorlen
