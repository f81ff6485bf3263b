#include "platform/MemoryPressureSource.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>
#include <unordered_map>

#include "base/Log.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenDefaultLog();
}

// Unavailability is a property of the machine, not of one source: said once at default level, then at
// debug level for every later source.
void logUnavailable(const std::string& why) {
  static std::atomic<bool> said{false};
  LogLevel level = said.exchange(true) ? LogLevel::Debug : LogLevel::Default;
  log().log(level, "memory pressure events unavailable: {}", why);
}

// One epoll set and one thread for every armed trigger of the process. Callbacks run on the watcher thread
// without its lock held, so they may register and unregister; they only hand the event over to a queue.
class PressureWatcher {
 public:
  // `failed` is true when the kernel reported the trigger broken (e.g. its cgroup was removed); the
  // registration is already gone by then.
  using Callback = std::function<void(bool failed)>;

  // The process-wide watcher, or null when no epoll set can be made.
  static PressureWatcher* shared() {
    // Never destroyed: its thread waits for the whole life of the process.
    static PressureWatcher* watcher = new PressureWatcher();
    return watcher->epfd_ >= 0 ? watcher : nullptr;
  }

  // The registration id, or 0 with *error set.
  uint64_t add(int fd, Callback callback, std::string* error) {
    std::lock_guard<std::mutex> lock(mu_);
    uint64_t id = nextId_++;
    epoll_event ev{};
    ev.events = EPOLLPRI;
    ev.data.u64 = id;
    if (epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
      *error = std::strerror(errno);
      return 0;
    }
    entries_.emplace(id, Entry{fd, std::make_shared<Callback>(std::move(callback))});
    return id;
  }

  // After this returns the callback of `id` is not started again.
  void remove(uint64_t id) {
    std::lock_guard<std::mutex> lock(mu_);
    removeLocked(id);
  }

 private:
  struct Entry {
    int fd;
    std::shared_ptr<Callback> callback;
  };

  PressureWatcher() {
    epfd_ = epoll_create1(EPOLL_CLOEXEC);
    if (epfd_ < 0) {
      log().error("memory pressure watcher unavailable: epoll_create1: {}", std::strerror(errno));
      return;
    }
    std::thread([this] { run(); }).detach();
  }

  void removeLocked(uint64_t id) {
    auto it = entries_.find(id);
    if (it == entries_.end()) return;
    epoll_ctl(epfd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
    entries_.erase(it);
  }

  void run() {
    pthread_setname_np(pthread_self(), "vorlen-pressure");
    epoll_event events[16];
    for (;;) {
      int n = epoll_wait(epfd_, events, 16, -1);
      if (n < 0) {
        if (errno == EINTR) continue;
        log().fault("memory pressure watcher stopped: epoll_wait: {}", std::strerror(errno));
        return;
      }
      for (int i = 0; i < n; ++i) {
        bool failed = (events[i].events & (EPOLLERR | EPOLLHUP)) != 0;
        std::shared_ptr<Callback> callback;
        {
          std::lock_guard<std::mutex> lock(mu_);
          auto it = entries_.find(events[i].data.u64);
          if (it == entries_.end()) continue;  // unregistered while the event was in flight
          callback = it->second.callback;
          // A broken trigger reports an error at every wait; drop it before anything else.
          if (failed) removeLocked(events[i].data.u64);
        }
        (*callback)(failed);
      }
    }
  }

  int epfd_ = -1;
  std::mutex mu_;
  uint64_t nextId_ = 1;
  std::unordered_map<uint64_t, Entry> entries_;
};

std::optional<std::string> readSmallFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// mountinfo escapes space, tab, newline and backslash in paths as three octal digits ("\040").
std::string unescapeMountField(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const char* d = field.data() + i + 1;
      if (d[0] >= '0' && d[0] <= '3' && d[1] >= '0' && d[1] <= '7' && d[2] >= '0' && d[2] <= '7') {
        out.push_back(static_cast<char>((d[0] - '0') * 64 + (d[1] - '0') * 8 + (d[2] - '0')));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

// The cgroup v2 path of the process ("0::<path>"), e.g. "/user.slice/app.scope".
std::optional<std::string> unifiedCgroupPath(const std::string& cgroupFile) {
  std::istringstream lines(cgroupFile);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("0::", 0) == 0) return line.substr(3);
  }
  return std::nullopt;
}

struct Cgroup2Mount {
  std::string root;        // the cgroup directory shown at the mount point
  std::string mountPoint;  // where it is mounted
};

std::optional<Cgroup2Mount> cgroup2Mount(const std::string& mountInfo) {
  std::istringstream lines(mountInfo);
  std::string line;
  while (std::getline(lines, line)) {
    size_t sep = line.find(" - ");
    if (sep == std::string::npos) continue;
    std::istringstream after(line.substr(sep + 3));
    std::string fsType;
    after >> fsType;
    if (fsType != "cgroup2") continue;
    std::istringstream before(line.substr(0, sep));
    std::string id, parent, device, root, mountPoint;
    if (!(before >> id >> parent >> device >> root >> mountPoint)) continue;
    return Cgroup2Mount{unescapeMountField(root), unescapeMountField(mountPoint)};
  }
  return std::nullopt;
}

}  // namespace

std::shared_ptr<MemoryPressureSource> MemoryPressureSource::create(std::shared_ptr<Queue> queue,
                                                                   Handler handler,
                                                                   MemoryPressureSettings settings) {
  return std::shared_ptr<MemoryPressureSource>(
      new MemoryPressureSource(std::move(queue), std::move(handler), std::move(settings)));
}

MemoryPressureSource::MemoryPressureSource(std::shared_ptr<Queue> queue, Handler handler,
                                           MemoryPressureSettings settings)
    : queue_(std::move(queue)), handler_(std::move(handler)), settings_(std::move(settings)) {}

MemoryPressureSource::~MemoryPressureSource() {
  cancel();
}

std::vector<std::filesystem::path> MemoryPressureSource::candidatePaths(
    const MemoryPressureSettings& settings) {
  std::vector<std::filesystem::path> out;
  std::optional<std::string> cgroupFile = readSmallFile(settings.procSelfCgroup);
  std::optional<std::string> mountInfo = readSmallFile(settings.procSelfMountInfo);
  std::optional<std::string> cgroup = cgroupFile ? unifiedCgroupPath(*cgroupFile) : std::nullopt;
  std::optional<Cgroup2Mount> mount = mountInfo ? cgroup2Mount(*mountInfo) : std::nullopt;
  if (cgroup && mount && !cgroup->empty() && (*cgroup)[0] == '/') {
    // The cgroup path is absolute in the hierarchy; the mount shows the hierarchy from `root` down. A cgroup
    // outside the mounted part cannot be reached through this mount.
    std::optional<std::string_view> relative;
    if (mount->root == "/") {
      relative = *cgroup;
    } else if (*cgroup == mount->root || cgroup->rfind(mount->root + "/", 0) == 0) {
      relative = std::string_view(*cgroup).substr(mount->root.size());
    }
    if (relative) {
      std::filesystem::path dir(mount->mountPoint);
      while (!relative->empty() && relative->front() == '/') relative->remove_prefix(1);
      if (!relative->empty()) dir /= std::filesystem::path(*relative);
      out.push_back(dir / "memory.pressure");
    }
  }
  if (!settings.systemPressureFile.empty()) out.push_back(settings.systemPressureFile);
  return out;
}

bool MemoryPressureSource::start() {
  std::lock_guard<std::mutex> lock(mu_);
  if (cancelled_.load()) return false;
  if (fd_ >= 0) return true;
  PressureWatcher* watcher = PressureWatcher::shared();
  if (!watcher) {
    logUnavailable("no watcher");
    return false;
  }
  std::string failures;
  auto fail = [&](const std::filesystem::path& path, const char* step, const std::string& why) {
    if (!failures.empty()) failures += "; ";
    failures += fmt::format("{}: {}: {}", path.string(), step, why);
  };
  std::weak_ptr<MemoryPressureSource> weak = weak_from_this();
  for (const std::filesystem::path& path : candidatePaths(settings_)) {
    int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      fail(path, "open", std::strerror(errno));
      continue;
    }
    // The kernel reads the trigger up to its NUL, which is part of the write.
    if (::write(fd, settings_.trigger.c_str(), settings_.trigger.size() + 1) < 0) {
      fail(path, "write trigger", std::strerror(errno));
      ::close(fd);
      continue;
    }
    std::string error;
    uint64_t id = watcher->add(
        fd,
        [weak](bool failed) {
          auto self = weak.lock();
          if (!self) return;
          if (failed) {
            self->_triggerFailed();
          } else {
            self->_deliver();
          }
        },
        &error);
    if (!id) {
      // A file that is not a pressure file (e.g. a plain file) cannot be polled for stall events.
      fail(path, "poll", error);
      ::close(fd);
      continue;
    }
    fd_ = fd;
    watchId_ = id;
    armedPath_ = path;
    log().debug("memory pressure trigger '{}' armed on {}", settings_.trigger, path.string());
    return true;
  }
  logUnavailable(failures.empty() ? "no pressure file" : failures);
  return false;
}

void MemoryPressureSource::cancel() {
  cancelled_.store(true);
  std::lock_guard<std::mutex> lock(mu_);
  _disarmLocked();
}

bool MemoryPressureSource::isArmed() const {
  std::lock_guard<std::mutex> lock(mu_);
  return fd_ >= 0;
}

std::filesystem::path MemoryPressureSource::armedPath() const {
  std::lock_guard<std::mutex> lock(mu_);
  return armedPath_;
}

void MemoryPressureSource::fireForTesting() {
  if (!cancelled_.load()) _deliver();
}

void MemoryPressureSource::_deliver() {
  std::weak_ptr<MemoryPressureSource> weak = weak_from_this();
  queue_->async([weak] {
    auto self = weak.lock();
    if (self && !self->cancelled_.load()) self->handler_();
  });
}

void MemoryPressureSource::_triggerFailed() {
  std::lock_guard<std::mutex> lock(mu_);
  if (fd_ < 0) return;
  log().error("memory pressure trigger on {} failed; no more pressure events", armedPath_.string());
  watchId_ = 0;  // the watcher has already dropped it
  _disarmLocked();
}

void MemoryPressureSource::_disarmLocked() {
  if (watchId_) {
    if (PressureWatcher* watcher = PressureWatcher::shared()) watcher->remove(watchId_);
    watchId_ = 0;
  }
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  armedPath_.clear();
}

}  // namespace vorlen
