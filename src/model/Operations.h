// Operations: the names of the interfaces the daemon and its clients export to each other, and of every
// operation on them, as they travel in a call's "op" (see docs/PROTOCOL.md). The daemon's exported
// interfaces, the client library's calls and callbacks and its reply decoder all spell them from here, so
// a name cannot drift between the two ends.
//
// Threading: constants only.
#pragma once

namespace vorlen::op {

// VORDaemonIPC: the daemon's interface on the service socket.
inline constexpr const char* kDaemonInterface = "VORDaemonIPC";
inline constexpr const char* kConfigure = "configure:reply:";
inline constexpr const char* kBag = "bag:";
inline constexpr const char* kRefreshBag = "refreshBag:";
inline constexpr const char* kRequest = "request:reply:";
inline constexpr const char* kReportEvent = "reportEvent:queryId:feedback:";
inline constexpr const char* kFeedback = "feedback:reply:";
inline constexpr const char* kListenToFlusher = "listenToFlusher:";
inline constexpr const char* kListSessions = "listSessions:";
inline constexpr const char* kFileHandleForResource = "fileHandleAndAttributesForResource:completion:";
inline constexpr const char* kClearEngagedCompletions = "clearEngagedCompletionsFromDate:toDate:";
inline constexpr const char* kAddCompletion = "addCompletion:forInput:";
inline constexpr const char* kUpdateParameters =
    "updateParameters:voyantLast1day:voyantLast1week:voyantLast1month:voyantAll:voyantMostRecent:"
    "minThresholdToSend:";
inline constexpr const char* kGetImageMap = "getImageMap:";

// VOREndpointIPC: a client state's anonymous endpoint.
inline constexpr const char* kEndpointInterface = "VOREndpointIPC";
inline constexpr const char* kEndpointRequest = "request:configuration:reply:";

// VORClientIPC: what a client exports for the daemon's calls (they carry no serial and get no reply).
inline constexpr const char* kClientInterface = "VORClientIPC";
inline constexpr const char* kBagDidLoad = "bagDidLoad:error:";
inline constexpr const char* kDidDownloadResource = "didDownloadResource:";
inline constexpr const char* kDidDeleteResource = "didDeleteResource:";

// VORFlusherIPC: the flusher endpoint, called by a diagnostics tool.
inline constexpr const char* kFlusherInterface = "VORFlusherIPC";
inline constexpr const char* kInitiateConnectionWithIntent = "initiateConnectionWithIntent:";

// VORFlusherListenerIPC: what a diagnostics tool exports for the flusher endpoint's calls.
inline constexpr const char* kFlusherListenerInterface = "VORFlusherListenerIPC";
inline constexpr const char* kFlushedData = "flushedData:";
inline constexpr const char* kReceivedFeedbackDescription = "receivedFeedbackDescription:";
inline constexpr const char* kWorkDone = "workDone";

}  // namespace vorlen::op
