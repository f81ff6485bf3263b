#include "client/ClientReplyDecoder.h"

#include <fmt/format.h>

#include "base/Log.h"

namespace vorlen {

namespace {

// Collects the first fault of one reply; every check after a fault is skipped.
class Reader {
 public:
  Reader(const IpcMessage& reply, const char* op, size_t argCount) : reply_(reply), op_(op) {
    if (reply.args().size() != argCount)
      fail(fmt::format("expected {} arguments, found {}", argCount, reply.args().size()));
  }

  bool ok() const { return why_.empty(); }
  const Value& arg(size_t i) const { return reply_.arg(i); }

  void fail(std::string why) {
    if (why_.empty()) why_ = std::move(why);
  }

  // A record of R's class, or the Null marker when `optional`.
  template <class R>
  void record(size_t i, std::optional<R>* out, bool optional = true) {
    if (!ok()) return;
    const Value& v = arg(i);
    if (v.isNull()) {
      if (!optional) fail(fmt::format("argument {} is missing", i));
      return;
    }
    std::string error;
    std::optional<R> r = R::fromRecord(v, &error);
    if (!r) return fail(fmt::format("argument {}: {}", i, error));
    out->emplace(std::move(*r));
  }

  void unsignedInteger(size_t i, uint64_t* out) {
    if (!ok()) return;
    const Value& v = arg(i);
    std::optional<uint64_t> n = v.isInteger() ? v.getUInt() : std::nullopt;
    if (!n) return fail(fmt::format("argument {}: expected unsigned integer, found {}", i, v.describe()));
    *out = *n;
  }

  // A plain dictionary (not a record); null leaves *out alone when `optional`.
  void dict(size_t i, Value::Dict* out, bool optional) {
    if (!ok()) return;
    const Value& v = arg(i);
    if (v.isNull() && optional) return;
    if (!v.isDict() || !v.className().empty())
      return fail(fmt::format("argument {}: expected dictionary, found {}", i, v.describe()));
    *out = *v.getDict();
  }

  const Value::Array* array(size_t i) {
    if (!ok()) return nullptr;
    const Value::Array* a = arg(i).getArray();
    if (!a) fail(fmt::format("argument {}: expected array, found {}", i, arg(i).describe()));
    return a;
  }

  template <class T>
  ClientResult<T> finish(T value) const {
    if (ok()) return ClientResult<T>::success(std::move(value));
    VorlenLogForCategory(VorlenLogCategoryConnection).error("malformed reply to {}: {}", op_, why_);
    return ClientResult<T>::failure(
        {ClientError::Kind::MalformedReply, fmt::format("malformed reply to {}: {}", op_, why_)});
  }

 private:
  const IpcMessage& reply_;
  const char* op_;
  std::string why_;
};

}  // namespace

ClientResult<IpcEndpoint> ClientReplyDecoder::endpoint(const IpcMessage& reply, const char* op) {
  Reader r(reply, op, 1);
  std::optional<IpcEndpoint> endpoint;
  if (r.ok()) {
    endpoint = IpcEndpoint::fromValue(r.arg(0));
    if (!endpoint) r.fail("argument 0: expected an Endpoint record, found " + r.arg(0).describe());
  }
  return r.finish(endpoint.value_or(IpcEndpoint{}));
}

ClientResult<BagReply> ClientReplyDecoder::bag(const IpcMessage& reply, const char* op) {
  Reader r(reply, op, 2);
  BagReply out;
  r.record(0, &out.bag);
  r.record(1, &out.error);
  return r.finish(std::move(out));
}

ClientResult<RequestReply> ClientReplyDecoder::request(const IpcMessage& reply, const char* op) {
  Reader r(reply, op, 3);
  RequestReply out;
  r.unsignedInteger(0, &out.queryId);
  r.record(1, &out.reply);
  r.record(2, &out.error);
  return r.finish(std::move(out));
}

ClientResult<FeedbackReply> ClientReplyDecoder::feedback(const IpcMessage& reply) {
  Reader r(reply, op::kFeedback, 2);
  FeedbackReply out;
  if (const Value::Array* events = r.array(0)) {
    for (size_t i = 0; i < events->size() && r.ok(); ++i) {
      const Value::Dict* d = (*events)[i].getDict();
      if (!d)
        r.fail(fmt::format("argument 0, item {}: expected dictionary", i));
      else
        out.events.push_back(*d);
    }
  }
  r.record(1, &out.error);
  return r.finish(std::move(out));
}

ClientResult<std::vector<SessionInfo>> ClientReplyDecoder::sessions(const IpcMessage& reply) {
  Reader r(reply, op::kListSessions, 1);
  std::vector<SessionInfo> out;
  if (const Value::Array* items = r.array(0)) {
    for (size_t i = 0; i < items->size() && r.ok(); ++i) {
      const Value& item = (*items)[i];
      const Value* identifier = item.find("identifier");
      const Value* agent = item.find("agent");
      if (!identifier || !identifier->isString() || !agent || !agent->isString()) {
        r.fail(fmt::format("argument 0, item {}: expected {{identifier: string, agent: string}}, found {}", i,
                           item.describe()));
      } else {
        out.push_back({*identifier->getString(), *agent->getString()});
      }
    }
  }
  return r.finish(std::move(out));
}

ClientResult<ResourceFile> ClientReplyDecoder::resourceFile(const IpcMessage& reply) {
  Reader r(reply, op::kFileHandleForResource, 3);
  ResourceFile out;
  if (r.ok() && !r.arg(0).isNull()) {
    if (!IpcMessage::fileHandleIndex(r.arg(0))) {
      r.fail("argument 0: expected a FileHandle record, found " + r.arg(0).describe());
    } else {
      out.file = reply.takeFileHandle(r.arg(0));
      if (!out.file) r.fail("argument 0: the file handle's descriptor did not arrive with the reply");
    }
  }
  r.dict(1, &out.attributes, true);
  r.record(2, &out.error);
  return r.finish(std::move(out));
}

ClientResult<Value::Dict> ClientReplyDecoder::imageMap(const IpcMessage& reply) {
  Reader r(reply, op::kGetImageMap, 1);
  Value::Dict out;
  r.dict(0, &out, false);
  return r.finish(std::move(out));
}

}  // namespace vorlen
