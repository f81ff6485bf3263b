// Trace: system trace events. Each event is a USDT probe "vorlend:trace" carrying one 32-bit code; a
// tracer attached to the process (perf, bpftrace, systemtap) sees them, and with no tracer attached a
// probe costs a no-op instruction. Events are emitted only while VORTraceEnabled is set.
//
// Threading: safe from any thread.
#pragma once

#include <cstdint>

namespace vorlen {

// Emits the event `code` when tracing is enabled.
void VorlenTraceEvent(uint32_t code);

// Trace codes of the client connection: start and end of each traced operation.
enum VorlenTraceCode : uint32_t {
  kTraceSearchStart = 0x2b000004,
  kTraceSearchEnd = 0x2b000008,
  kTraceCardStart = 0x2b00000c,
  kTraceCardEnd = 0x2b000010,
  kTraceZeroKeywordStart = 0x2b00001c,
  kTraceZeroKeywordEnd = 0x2b000020,
  kTraceFeedbackStart = 0x2b000024,
  kTraceFeedbackEnd = 0x2b000028,
  kTraceLookupStart = 0x2b00002c,
  kTraceLookupEnd = 0x2b000030,
};

}  // namespace vorlen
