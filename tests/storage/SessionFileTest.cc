// Session files and their folder: what is written survives as whole records, what is read is checked,
// and the folder scan takes over earlier files without trusting them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "base/Archive.h"
#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "feedback/ClientSession.h"
#include "feedback/VorlenFeedback.h"
#include "model/QXFeedbackFactory.h"
#include "platform/Assembly.h"
#include "storage/ArchivedDataIterator.h"
#include "storage/VorlenPersistentStorage.h"
#include "support/Eventually.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

constexpr const char* kVersion = "Vorlend/1.0 (test; Linux 12) Vorlend/1.0";
constexpr const char* kAgent = "Voyant/18.0";

VorlenFeedback event(int n) {
  QXFeedback skip = QXFeedbackFactory::skipSearch(1, "query " + std::to_string(n));
  skip.setTimestamp(1000000 + static_cast<uint64_t>(n));
  return VorlenFeedback(std::move(skip), 100 + n, Uuid::parse("7a3b1c2d-0000-4000-8000-000000000001"), kAgent,
                        static_cast<uint64_t>(n));
}

std::vector<uint8_t> record(std::span<const uint8_t> payload) {
  std::vector<uint8_t> out(8 + payload.size());
  const uint64_t n = payload.size();
  std::memcpy(out.data(), &n, 8);
  std::copy(payload.begin(), payload.end(), out.begin() + 8);
  return out;
}
std::vector<uint8_t> record(std::string_view text) {
  return record(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}
void append(std::vector<uint8_t>& to, const std::vector<uint8_t>& bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

class SessionFileTest : public ::testing::Test {
 protected:
  void SetUp() override { start(); }

  void start(int64_t sizeLimit = 0) {
    platform = test::platformForTesting(dir / "root", clock);
    platform.fileSystem = faults;
    Counters::install(platform.counters);
    assembly = std::make_shared<Assembly>(platform);
    assembly->userDefaults = std::make_shared<Preferences>(platform.paths.configDir, "com.velmo.vorlend");
    if (sizeLimit) assembly->userDefaults->set("VORSessionSizeLimit", Value(sizeLimit));
    assembly->notificationCenter = platform.notificationCenter;
    storage = VorlenPersistentStorage::create(*assembly, kVersion);
    assembly->persistentStorage = storage;
  }

  // A completed session of `events` events; returns the finished file.
  std::shared_ptr<FileContainer> writeSession(int events) {
    auto session = ClientSession::create(*assembly, event(0));
    for (int i = 1; i < events; ++i) session->addFeedback(event(i));
    session->sessionComplete();
    auto files = storage->getAvailableSessionHandles();
    return files.empty() ? nullptr : files.back();
  }

  std::vector<uint8_t> image(const FileContainer& file) {
    std::string bytes = test::readFile(file.fileUrl());
    return {bytes.begin(), bytes.end()};
  }

  size_t eventsIn(std::span<const uint8_t> bytes) {
    auto session = FileContainer::unarchive(bytes, kVersion, *assembly);
    return session ? session->getSessionFeedbacks().size() : SIZE_MAX;
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<test::FaultInjectingFileSystem> faults = std::make_shared<test::FaultInjectingFileSystem>();
  Platform platform;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<VorlenPersistentStorage> storage;
};

TEST(ArchivedDataIteratorTest, SlicesWholeRecordsAndStopsAtTheFirstBadOne) {
  struct Case {
    const char* name;
    std::vector<uint8_t> image;
    size_t records;         // payloads returned before the first nothing
    const char* errorLine;  // the line that ends the walk
    bool hasMoreAtEnd;      // what hasMore() says when the walk ends
  };
  std::vector<uint8_t> two = record("ab");
  append(two, record("cde"));
  std::vector<uint8_t> zeroLength(16, 0);
  std::vector<uint8_t> truncated = record("abcdef");
  truncated.pop_back();
  std::vector<uint8_t> huge(16, 0xff);  // a length of 2^64-1 must not wrap past the end
  std::vector<uint8_t> lengthOnly = record("ab");
  lengthOnly.resize(lengthOnly.size() + 8, 0);  // exactly 8 bytes left: hasMore, then "out of range"
  const Case cases[] = {
      {"two records", two, 2, "out of range", false},
      {"first length zero", zeroLength, 0, "empty data file", true},
      {"payload cut short", truncated, 0, "broken version string in file", true},
      {"length near 2^64", huge, 0, "broken version string in file", true},
      {"eight bytes left", lengthOnly, 1, "out of range", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScopedLogCapture capture;
    ArchivedDataIterator it(c.image);
    size_t n = 0;
    while (it.readNextObject()) ++n;
    EXPECT_EQ(n, c.records);
    EXPECT_EQ(it.hasMore(), c.hasMoreAtEnd);
    EXPECT_TRUE(capture.sink().contains(LogLevel::Error, "Vorlen_Session", c.errorLine));
  }
}

TEST_F(SessionFileTest, AFinishedFileReadsBackAsTheSessionItHeld) {
  auto file = writeSession(3);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->fileUrl().filename(), "session.0");
  EXPECT_EQ(test::fileMode(file->fileUrl()), 0600u);
  EXPECT_FALSE(file->isOpenForTesting());

  auto session = file->read(*assembly);
  ASSERT_TRUE(session);
  EXPECT_EQ(session->agent(), kAgent);
  auto events = session->getSessionFeedbacks();
  ASSERT_EQ(events.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(events[i].toArchive(), event(i).toArchive()) << i;
}

// The sender's hold on an event (a client connection's backlog hold: a null pointer with a deleter) ends
// only once the event's record is in the file, however slow the disk: a client can never report events
// faster than they are stored.
TEST_F(SessionFileTest, AnEventHoldsItsSenderUntilItsRecordIsWritten) {
  auto session = ClientSession::create(*assembly, event(0));
  std::promise<void> diskFree;
  storage->queue()->async([busy = diskFree.get_future().share()] { busy.wait(); });
  std::atomic<bool> released{false};
  VorlenFeedback held = event(1);
  held.untilStored = std::shared_ptr<void>(nullptr, [&released](void*) { released = true; });
  session->addFeedback(std::move(held));
  EXPECT_FALSE(released.load());
  diskFree.set_value();
  ASSERT_TRUE(test::eventually([&] { return released.load(); }));
  session->sessionComplete();
  auto files = storage->getAvailableSessionHandles();
  ASSERT_FALSE(files.empty());
  EXPECT_EQ(eventsIn(image(*files.back())), 2u);
}

TEST_F(SessionFileTest, AnAppendThatWouldReachTheMaximumExactlyIsRefusedAndClosesTheFile) {
  // Size of a file with the header and the first event, and of one more event record.
  auto probe = writeSession(1);
  const int64_t oneEventFile = static_cast<int64_t>(std::filesystem::file_size(probe->fileUrl()));
  const int64_t eventRecord = 8 + static_cast<int64_t>(Archive::encodeBinary(event(1).toArchive()).size());

  for (auto [slack, kept] : {std::pair{0, 1u}, std::pair{1, 2u}}) {
    SCOPED_TRACE(slack);
    start(oneEventFile + eventRecord + slack);
    ScopedLogCapture capture;
    const int64_t before = platform.counters->value("com.velmo.vorlend.filesizeexceeded");
    auto file = writeSession(3);  // the third event never fits
    auto session = file->read(*assembly);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->getSessionFeedbacks().size(), kept);
    EXPECT_EQ(platform.counters->value("com.velmo.vorlend.filesizeexceeded") - before, 1);
    // Later appends found the file closed: one refusal, not one per event.
    EXPECT_EQ(static_cast<int64_t>(std::filesystem::file_size(file->fileUrl())),
              oneEventFile + (kept - 1) * eventRecord);
  }
}

TEST_F(SessionFileTest, ACutAtEveryByteKeepsExactlyTheCompleteRecordsBeforeIt) {
  auto file = writeSession(5);
  const std::vector<uint8_t> whole = image(*file);
  // Where each record ends.
  std::vector<size_t> ends;
  ArchivedDataIterator it(whole);
  while (it.hasMore() && it.readNextObject()) ends.push_back(it.position());
  ASSERT_EQ(ends.size(), 2u + 5u);

  ScopedLogCapture quiet;
  for (size_t cut = 0; cut <= whole.size(); ++cut) {
    const size_t complete = std::upper_bound(ends.begin(), ends.end(), cut) - ends.begin();
    // Without the version and header records there is no session; after them, every whole event counts.
    const size_t expected = complete < 2 ? SIZE_MAX : complete - 2;
    ASSERT_EQ(eventsIn(std::span(whole).first(cut)), expected) << "cut at " << cut;
  }
}

TEST_F(SessionFileTest, ImagesThatAreNotSessionsOfThisVersionYieldNothing) {
  const std::vector<uint8_t> header =
      record(Archive::encodeBinary(ClientSession::create(*assembly, event(0))->toArchive()));
  auto withEvents = [&](std::vector<std::vector<uint8_t>> tail) {
    std::vector<uint8_t> out = record(kVersion);
    append(out, header);
    for (auto& r : tail) append(out, r);
    return out;
  };
  const std::vector<uint8_t> good = record(Archive::encodeBinary(event(1).toArchive()));
  struct Case {
    const char* name;
    std::vector<uint8_t> image;
    size_t events;  // SIZE_MAX: no session
    const char* line;
  };
  std::vector<uint8_t> otherVersion = record("Vorlend/0.9 (old)");
  append(otherVersion, header);
  std::vector<uint8_t> notASession = record(kVersion);
  append(notASession, record(Archive::encodeBinary(Value::array({Value(1)}))));
  const Case cases[] = {
      {"empty", {}, SIZE_MAX, "empty file"},
      {"first length zero", std::vector<uint8_t>(16, 0), SIZE_MAX, "empty data file"},
      {"other version", otherVersion, SIZE_MAX, "version not supported: Vorlend/0.9 (old)"},
      {"header not a session", notASession, SIZE_MAX, "client session not stored"},
      {"garbage event", withEvents({good, record("not an archive"), good}), 1,
       "could not unarchive feedback range"},
      {"record of another class",
       withEvents({good, record(Archive::encodeBinary(Value::dict({{"$class", Value("QXFeedback")}})))}), 1,
       "vorlen feedback expected"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScopedLogCapture capture;
    EXPECT_EQ(eventsIn(c.image), c.events);
    bool logged = false;
    for (const auto& r : capture.sink().records()) logged |= r.message.starts_with(c.line);
    EXPECT_TRUE(logged) << c.line;
  }
}

TEST_F(SessionFileTest, DiskFaultsFailTheAppendAndLeaveTheFileWhole) {
  struct Case {
    const char* name;
    std::function<void(test::FaultInjectingFileSystem&)> arm;
    const char* line;
  };
  const Case cases[] = {
      {"disk full mid-record", [](auto& fs) { fs.writeBudget = 5; }, "No space left on device"},
      {"I/O error", [](auto& fs) { fs.writeErrno = EIO; }, "Input/output error"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    start();
    ScopedLogCapture capture;
    auto session = ClientSession::create(*assembly, event(0));
    session->addFeedback(event(1));
    session->feedbackCount();  // the two appends are queued
    storage->queue()->sync([] {});
    c.arm(*faults);
    session->addFeedback(event(2));
    session->addFeedback(event(3));
    session->feedbackCount();
    storage->queue()->sync([] {});
    faults->clear();
    session->addFeedback(event(4));  // space came back: appends go on after the whole records
    session->sessionComplete();
    auto files = storage->getAvailableSessionHandles();
    ASSERT_EQ(files.size(), 1u);
    auto read = files[0]->read(*assembly);
    ASSERT_TRUE(read);
    auto events = read->getSessionFeedbacks();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[2].toArchive(), event(4).toArchive());
    bool logged = false;
    for (const auto& r : capture.sink().records())
      logged |= r.level == LogLevel::Error && r.message.find(c.line) != std::string::npos;
    EXPECT_TRUE(logged);
    storage->deleteSessionWithFileContainer(files[0]);
    storage->queue()->sync([] {});
  }
}

TEST_F(SessionFileTest, AFolderThatRefusesNewFilesLeavesSessionsInMemory) {
  faults->createErrno = EROFS;
  ScopedLogCapture capture;
  auto session = ClientSession::create(*assembly, event(0));
  session->addFeedback(event(1));
  EXPECT_EQ(session->getSessionFeedbacks().size(), 2u);
  session->sessionComplete();
  EXPECT_TRUE(capture.sink().contains(LogLevel::Error, "Vorlen_Session",
                                      "Could not open file for writing Read-only file system"));
  EXPECT_TRUE(capture.sink().contains("Storage Handle nil major error"));
  EXPECT_TRUE(storage->getAvailableSessionHandles().empty());
}

TEST_F(SessionFileTest, StartUpTakesOverEarlierFilesNumbersAfterThemAndDropsOldOnes) {
  const auto caches = platform.paths.cachesDir;
  for (const char* name : {"session.3", "session.9", "session.x", "session.1", "bag.plist"})
    test::writeFile(caches / name, "x");
  // session.1 was last written 49 hours ago (the default limit is 48).
  const Time old = clock->now() - std::chrono::hours(49);
  timespec times[2];
  times[0] = times[1] = timespec{
      static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(old.time_since_epoch()).count()),
      0};
  ASSERT_EQ(::utimensat(AT_FDCWD, (caches / "session.1").c_str(), times, 0), 0);

  start();
  std::vector<std::string> names;
  for (auto& f : storage->getAvailableSessionHandles()) names.push_back(f->fileUrl().filename());
  EXPECT_EQ(names, (std::vector<std::string>{"session.3", "session.9", "session.x"}));
  EXPECT_FALSE(std::filesystem::exists(caches / "session.1"));
  EXPECT_EQ(platform.counters->value("com.velmo.vorlend.filetooold"), 1);
  EXPECT_EQ(storage->nextFileNumberForTesting(), 10u);
  auto file = writeSession(1);
  EXPECT_EQ(file->fileUrl().filename(), "session.10");

  storage->deleteSessionWithFileContainer(file);
  EXPECT_EQ(storage->getAvailableSessionHandles().size(), 3u);
  EXPECT_FALSE(std::filesystem::exists(file->fileUrl()));
}

TEST_F(SessionFileTest, TheScanFollowsNoLinkAndListsOnlyRegularFilesOfThisUser) {
  const auto caches = platform.paths.cachesDir;
  test::writeFile(dir / "outside", "precious");
  std::filesystem::create_symlink(dir / "outside", caches / "session.7");
  ASSERT_EQ(::mkfifo((caches / "session.8").c_str(), 0600), 0);
  std::filesystem::create_directory(caches / "session.5");
  test::writeFile(caches / "session.2", "");
  test::writeFile(caches / "session.4", std::string(3 << 20, 'a'));
  for (int i = 100; i < 10100; ++i)
    ::close(::open((caches / ("session." + std::to_string(i))).c_str(), O_CREAT | O_WRONLY, 0600));

  ScopedLogCapture capture;
  start();
  auto files = storage->getAvailableSessionHandles();
  ASSERT_EQ(files.size(), 2u + 10000u);
  EXPECT_EQ(files[0]->fileUrl().filename(), "session.2");
  EXPECT_EQ(files[1]->fileUrl().filename(), "session.4");
  EXPECT_EQ(storage->nextFileNumberForTesting(), 10100u);
  for (const char* skipped : {"session.5", "session.7", "session.8"})
    EXPECT_TRUE(
        capture.sink().contains(fmt::format("skipping {}: not a regular file of this user", skipped)));

  EXPECT_FALSE(files[0]->read(*assembly));
  EXPECT_TRUE(capture.sink().contains("empty file"));
  EXPECT_FALSE(files[1]->read(*assembly));
  EXPECT_TRUE(capture.sink().contains("Session too big to process"));
  EXPECT_EQ(platform.counters->value("com.velmo.vorlend.filetoolarge"), 1);
  EXPECT_EQ(test::readFile(dir / "outside"), "precious");
}

}  // namespace
}  // namespace vorlen
