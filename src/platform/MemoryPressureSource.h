// MemoryPressureSource: calls a handler on a given queue when the process nears its memory limit.
//
// Linux realisation: a pressure-stall (PSI) trigger. start() arms the trigger on the memory.pressure file
// of the process's own cgroup (cgroup v2), which measures stalls against the limit this process actually
// lives under; when that file is missing or refuses the trigger it falls back to the system-wide
// /proc/pressure/memory. When neither can be armed (no PSI in the kernel, no permission, no cgroup v2)
// start() returns false after one log line and the source never fires on its own; fireForTesting() still
// delivers, so the code that reacts to pressure stays testable everywhere.
//
// Every armed source registers with one process-wide watcher thread (epoll), started on first use and kept
// for the life of the process. The watcher only hands the event over: the handler always runs on the
// source's queue, via queue->async. The kernel reports a trigger at most once per window, but several
// reports may be queued before the handler runs, so handlers must tolerate repeated calls.
//
// Threading: every method is safe from any thread. Once cancel() has returned no handler call starts (a call
// already running on the queue finishes). Destroying the source cancels it. A cancelled source stays
// cancelled; make a new one to listen again.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Queue.h"

namespace vorlen {

struct MemoryPressureSettings {
  // The PSI trigger: stall kind, then the stall threshold and the window, both in microseconds. Here: some
  // task of the group stalled on memory for 150 ms within a 2 s window. Unprivileged processes may only arm
  // windows that are whole multiples of 2 s.
  std::string trigger = "some 150000 2000000";
  // Where the process's cgroup and the cgroup v2 mount are read from, and the system-wide fallback. Tests
  // point these into a private folder.
  std::filesystem::path procSelfCgroup = "/proc/self/cgroup";
  std::filesystem::path procSelfMountInfo = "/proc/self/mountinfo";
  std::filesystem::path systemPressureFile = "/proc/pressure/memory";
};

class MemoryPressureSource : public std::enable_shared_from_this<MemoryPressureSource> {
 public:
  using Handler = std::function<void()>;

  // REQUIRES: queue and handler are non-null. Nothing is armed until start().
  static std::shared_ptr<MemoryPressureSource> create(std::shared_ptr<Queue> queue, Handler handler,
                                                      MemoryPressureSettings settings = {});
  ~MemoryPressureSource();
  MemoryPressureSource(const MemoryPressureSource&) = delete;
  MemoryPressureSource& operator=(const MemoryPressureSource&) = delete;

  // Arms the trigger on the first candidate file that accepts it. True when armed (also when it already
  // was); false when cancelled or when no candidate could be armed. Unavailability is logged with the
  // reason of each candidate: at default level the first time in the process, at debug level after that.
  bool start();
  // Disarms and closes the trigger; the handler is not called any more.
  void cancel();

  bool isArmed() const;
  bool isCancelled() const { return cancelled_.load(); }
  // The pressure file the trigger is armed on; empty when not armed.
  std::filesystem::path armedPath() const;

  // Delivers one event as the kernel's trigger would (handler on the queue), armed or not; nothing once
  // cancelled.
  void fireForTesting();

  // The pressure files start() tries, in order: the process's cgroup v2 memory.pressure (when the cgroup
  // and the cgroup2 mount can be read), then the system-wide file.
  static std::vector<std::filesystem::path> candidatePaths(const MemoryPressureSettings& settings);

 private:
  MemoryPressureSource(std::shared_ptr<Queue> queue, Handler handler, MemoryPressureSettings settings);
  // Called by the watcher thread.
  void _deliver();
  void _triggerFailed();
  // REQUIRES: mu_ held.
  void _disarmLocked();

  std::shared_ptr<Queue> queue_;
  Handler handler_;
  MemoryPressureSettings settings_;
  std::atomic<bool> cancelled_{false};

  mutable std::mutex mu_;
  int fd_ = -1;           // the armed trigger, or -1
  uint64_t watchId_ = 0;  // registration with the watcher, 0 when none
  std::filesystem::path armedPath_;
};

}  // namespace vorlen
