// IpcListener: a listening Unix stream socket that turns each incoming connection into an IpcConnection
// and asks its delegate whether to keep it.
//
// Named listeners listen on a given path (the service socket). With socketActivation they take the socket
// the service manager passed instead of binding one. Otherwise the socket file is created with mode 0600;
// an existing socket file is replaced only when nothing listens on it, and any other file in the way is an
// error. Anonymous listeners listen on a fresh path in a given folder whose name is 128 random bits in
// hex; their endpoint() is what a client connects to. REQUIRES: the folder exists and is private (0700).
//
// Each listener keeps at most maxConnections connections open at once, and at most
// maxConnectionsPerProcess from one peer process; a connection beyond either is closed as soon as it is
// accepted, with an error line (for one process, once until it is back under its limit). When accept()
// fails for want of descriptors (EMFILE, ENFILE) or memory, the listener logs it once and pauses for
// acceptBackoff on the connection options' clock before it tries again. Connections outlive their listener:
// invalidating a listener stops accepting and removes its socket file, nothing else.
//
// Life cycle: created suspended; setDelegate(), then resume(). A resumed listener keeps itself alive until
// invalidate(). Without a delegate (or once it is gone) every connection is refused.
//
// Threading: every public method is safe from any thread. Accepting happens on the IpcRuntime's I/O
// thread; the delegate runs on queue().
#pragma once

#include <sys/types.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "base/Clock.h"
#include "base/Queue.h"
#include "base/UniqueFd.h"
#include "ipc/IpcEndpoint.h"
#include "ipc/IpcListenerDelegate.h"
#include "ipc/IpcListenerOptions.h"

namespace vorlen {

class IpcRuntime;

class IpcListener : public std::enable_shared_from_this<IpcListener> {
 public:
  // Null with the reason in *error when the socket cannot be set up.
  static std::shared_ptr<IpcListener> named(const std::filesystem::path& path,
                                            IpcListenerOptions options = {}, std::string* error = nullptr);
  static std::shared_ptr<IpcListener> anonymous(const std::filesystem::path& directory,
                                                IpcListenerOptions options = {},
                                                std::string* error = nullptr);

  ~IpcListener();
  IpcListener(const IpcListener&) = delete;
  IpcListener& operator=(const IpcListener&) = delete;

  void setDelegate(std::weak_ptr<IpcListenerDelegate> delegate);
  void resume();
  void invalidate();

  const std::filesystem::path& path() const { return path_; }
  IpcEndpoint endpoint() const { return IpcEndpoint{path_}; }
  // True when the socket came from the service manager.
  bool isSocketActivated() const { return activated_; }
  size_t connectionCount() const;
  const std::shared_ptr<Queue>& queue() const { return queue_; }

 private:
  struct Io;
  // Open connections, in all and per peer process; shared with the close observers of the connections.
  struct Census {
    struct PerProcess {
      size_t open = 0;
      bool refusalLogged = false;
    };
    std::mutex mu;
    size_t open = 0;
    std::unordered_map<pid_t, PerProcess> byPid;
  };

  IpcListener(UniqueFd socket, std::filesystem::path path, bool ownsPath, bool activated,
              IpcListenerOptions options);
  static UniqueFd bindSocket(const std::filesystem::path& path, std::string* error);

  void armAccept();
  void onAcceptable();
  void offer(const std::shared_ptr<IpcConnection>& connection);
  // Counts `connection` in, or returns false (after logging) when a limit is reached. I/O thread.
  bool admit(const std::shared_ptr<IpcConnection>& connection);
  void pauseAccepting(int error);
  void closeOnIo();
  void removeSocketFile();

  IpcListenerOptions options_;
  std::shared_ptr<IpcRuntime> runtime_;
  std::shared_ptr<Queue> queue_;
  std::filesystem::path path_;
  bool ownsPath_;  // we bound the socket file, so we remove it
  bool activated_;
  dev_t fileDevice_ = 0;
  ino_t fileInode_ = 0;
  std::shared_ptr<Census> census_;
  std::shared_ptr<Clock> clock_;
  std::atomic<bool> resumed_{false};
  std::atomic<bool> invalidated_{false};

  mutable std::mutex mu_;
  std::weak_ptr<IpcListenerDelegate> delegate_;
  bool fileRemoved_ = false;

  std::unique_ptr<Io> io_;  // last, so that the socket closes first
};

}  // namespace vorlen
