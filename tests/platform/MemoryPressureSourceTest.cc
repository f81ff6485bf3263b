#include "platform/MemoryPressureSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "base/Log.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

namespace fs = std::filesystem;

class MemoryPressureSourceTest : public ::testing::Test {
 protected:
  // Settings that read the process's cgroup and mounts from private files.
  MemoryPressureSettings fakeProc(const std::string& cgroup, const std::string& mountInfo) {
    MemoryPressureSettings s;
    s.procSelfCgroup = dir / "cgroup";
    s.procSelfMountInfo = dir / "mountinfo";
    s.systemPressureFile = dir / "pressure-memory";
    test::writeFile(s.procSelfCgroup, cgroup);
    test::writeFile(s.procSelfMountInfo, mountInfo);
    return s;
  }
  static std::vector<std::string> unavailableLines(const CapturingSink& sink) {
    std::vector<std::string> out;
    for (const LogRecord& r : sink.records()) {
      if (r.message.rfind("memory pressure events unavailable: ", 0) == 0) out.push_back(r.message);
    }
    return out;
  }

  test::TempDir dir;
  std::shared_ptr<Queue> queue = Queue::serial("test.pressure");
};

constexpr const char* kOtherMount = "22 1 0:21 / /proc rw,nosuid - proc proc rw\n";

TEST_F(MemoryPressureSourceTest, CandidatesAreTheProcessCgroupThenTheSystemFile) {
  auto s =
      fakeProc("4:memory:/legacy\n0::/user.slice/app scope\n",
               std::string(kOtherMount) + "35 24 0:30 / /sys/fs/cgroup\\040v2 rw - cgroup2 cgroup2 rw\n");
  EXPECT_EQ(MemoryPressureSource::candidatePaths(s),
            (std::vector<fs::path>{"/sys/fs/cgroup v2/user.slice/app scope/memory.pressure",
                                   s.systemPressureFile}));

  // A mount that shows the hierarchy from a sub-group down.
  s = fakeProc("0::/user.slice/app\n", "35 24 0:30 /user.slice /mnt/cg rw - cgroup2 none rw\n");
  EXPECT_EQ(MemoryPressureSource::candidatePaths(s),
            (std::vector<fs::path>{"/mnt/cg/app/memory.pressure", s.systemPressureFile}));
  // The root group itself.
  s = fakeProc("0::/\n", "35 24 0:30 / /sys/fs/cgroup/unified rw - cgroup2 cgroup2 rw\n");
  EXPECT_EQ(MemoryPressureSource::candidatePaths(s),
            (std::vector<fs::path>{"/sys/fs/cgroup/unified/memory.pressure", s.systemPressureFile}));

  // Only the system file: the group is outside the mount, there is no cgroup2 mount, or no v2 group.
  for (auto [cgroup, mounts] : std::vector<std::pair<std::string, std::string>>{
           {"0::/elsewhere\n", "35 24 0:30 /user.slice /mnt/cg rw - cgroup2 none rw\n"},
           {"0::/user.slice\n", kOtherMount},
           {"4:memory:/legacy\n", "35 24 0:30 / /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n"}}) {
    EXPECT_EQ(MemoryPressureSource::candidatePaths(fakeProc(cgroup, mounts)),
              (std::vector<fs::path>{s.systemPressureFile}))
        << cgroup << mounts;
  }
}

TEST_F(MemoryPressureSourceTest, FilesThatCannotCarryATriggerAreReportedAndNeverArm) {
  ScopedLogCapture logs;
  // The cgroup file exists but is a plain file: it takes the write but cannot be polled for stalls. The
  // system file does not exist.
  fs::create_directories(dir / "cg" / "app");
  test::writeFile(dir / "cg" / "app" / "memory.pressure", "");
  auto s = fakeProc("0::/app\n", "35 24 0:30 / " + (dir / "cg").string() + " rw - cgroup2 cgroup2 rw\n");
  std::atomic<int> calls{0};
  auto source = MemoryPressureSource::create(
      queue,
      [&] {
        EXPECT_TRUE(queue->isCurrent());
        ++calls;
      },
      s);
  EXPECT_FALSE(source->start());
  EXPECT_FALSE(source->isArmed());
  EXPECT_TRUE(source->armedPath().empty());
  auto lines = unavailableLines(logs.sink());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find((dir / "cg" / "app" / "memory.pressure").string() + ": poll:"), std::string::npos)
      << lines[0];
  EXPECT_NE(lines[0].find(s.systemPressureFile.string() + ": open:"), std::string::npos) << lines[0];

  // The test entry point still delivers on the queue, until the source is cancelled.
  source->fireForTesting();
  queue->sync([] {});
  EXPECT_EQ(calls.load(), 1);
  source->cancel();
  source->fireForTesting();
  queue->sync([] {});
  EXPECT_EQ(calls.load(), 1);
  EXPECT_FALSE(source->start());
}

TEST_F(MemoryPressureSourceTest, ArmsOnThisMachineOrSaysWhyNot) {
  ScopedLogCapture logs;
  auto source = MemoryPressureSource::create(queue, [] {});
  std::vector<fs::path> candidates = MemoryPressureSource::candidatePaths({});
  ASSERT_FALSE(candidates.empty());
  EXPECT_EQ(candidates.back(), fs::path("/proc/pressure/memory"));
  if (source->start()) {
    RecordProperty("armedPath", source->armedPath().string());
    EXPECT_TRUE(source->isArmed());
    EXPECT_NE(std::find(candidates.begin(), candidates.end(), source->armedPath()), candidates.end());
    EXPECT_TRUE(source->start());  // already armed
    EXPECT_TRUE(unavailableLines(logs.sink()).empty());
    // A second source arms its own trigger beside the first.
    auto other = MemoryPressureSource::create(queue, [] {});
    EXPECT_TRUE(other->start());
    other.reset();
    EXPECT_TRUE(source->isArmed());
  } else {
    RecordProperty("armedPath", "");
    EXPECT_FALSE(source->isArmed());
    EXPECT_EQ(unavailableLines(logs.sink()).size(), 1u);
  }
  source->cancel();
  EXPECT_FALSE(source->isArmed());
  EXPECT_FALSE(source->start());
}

}  // namespace
}  // namespace vorlen
