// VORReply: the daemon's answer to one query: the raw response body of the search service and what the
// client needs to render it.
//
// Record: {"$class": "VORReply", "scale": real, "data": data, "httpRequest": dictionary,
//          "httpResponse": dictionary, "geoSessionEntityString": string}.
//   scale                   the display scale of the request the reply answers
//   data                    the response body (from the network or the on-device query cache)
//   httpRequest/Response    only when the request asked for a verbose reply: descriptions of the HTTP
//                           exchange, {"url", "method", "headers"} and {"url", "statusCode", "headers"}
//   geoSessionEntityString  the geo session entity at the time of the reply
//
// Threading: a plain value.
#pragma once

#include <string>

#include "model/TypedRecord.h"

namespace vorlen {

struct VORReply : TypedRecord<VORReply> {
  static constexpr const char* kClassName = "VORReply";
  static const RecordBinding<VORReply>& binding();

  double scale = 0.0;
  Value::Data data;
  Value::Dict httpRequest;
  Value::Dict httpResponse;
  std::string geoSessionEntityString;

  bool operator==(const VORReply&) const = default;
};

}  // namespace vorlen
