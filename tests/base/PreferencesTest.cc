#include "base/Preferences.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <csignal>
#include <thread>

#include "base/Archive.h"
#include "base/Log.h"
#include "base/UniqueFd.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

constexpr const char* kDomain = "com.velmo.vorlend";

// What a preferences file holds, decoded independently of the Preferences object.
Value fileContents(const std::filesystem::path& path) {
  std::string bytes = test::readFile(path);
  auto v = Archive::decode({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
  return v ? *v : Value();
}

TEST(PreferencesTest, StoredValuesWinOverDefaultsWhichAreNeverWritten) {
  test::TempDir dir;
  Preferences prefs(dir.path(), kDomain);
  EXPECT_EQ(prefs.path(), dir.path() / "com.velmo.vorlend.plist");
  prefs.registerDefaults({{"VORSharedSession", true}, {"VORSessionSizeLimit", 2097152u}, {"Other", "x"}});
  EXPECT_TRUE(prefs.boolForKey("VORSharedSession"));
  EXPECT_EQ(prefs.unsignedForKey("VORSessionSizeLimit"), 2097152u);
  EXPECT_FALSE(prefs.contains("Unset"));
  EXPECT_TRUE(prefs.object("Unset").isNull());

  ASSERT_TRUE(prefs.set("VORSharedSession", false));
  EXPECT_FALSE(prefs.boolForKey("VORSharedSession"));
  EXPECT_EQ(*prefs.stringForKey("Other"), "x");
  EXPECT_EQ(prefs.storedValues(), (Value::Dict{{"VORSharedSession", false}}));
  EXPECT_EQ(fileContents(prefs.path()), Value::dict({{"VORSharedSession", false}}));

  // Removing the stored value uncovers the default again.
  ASSERT_TRUE(prefs.remove("VORSharedSession"));
  EXPECT_TRUE(prefs.boolForKey("VORSharedSession"));
  EXPECT_EQ(fileContents(prefs.path()), Value(Value::Dict{}));
  // Setting null is removing.
  ASSERT_TRUE(prefs.set("Other", "stored"));
  ASSERT_TRUE(prefs.set("Other", nullptr));
  EXPECT_EQ(*prefs.stringForKey("Other"), "x");
}

TEST(PreferencesTest, TypedReadsTolerateOtherTypes) {
  test::TempDir dir;
  Preferences prefs(dir.path(), kDomain);
  prefs.registerDefaults({{"yes", "YES"},
                          {"true", "tRuE"},
                          {"no", "no"},
                          {"two", 2},
                          {"zero", 0.0},
                          {"num", "42"},
                          {"negNum", "-7"},
                          {"realNum", "2.75"},
                          {"junk", "12abc"},
                          {"real", -2.9},
                          {"huge", 1e30},
                          {"negative", -5},
                          {"wide", UINT64_MAX},
                          {"flag", true},
                          {"list", Value::array({1})},
                          {"date", fromUnixSeconds(1700000000)},
                          {"bytes", Value::Data{1, 2}}});
  EXPECT_TRUE(prefs.boolForKey("yes"));
  EXPECT_TRUE(prefs.boolForKey("true"));
  EXPECT_FALSE(prefs.boolForKey("no"));
  EXPECT_TRUE(prefs.boolForKey("two"));
  EXPECT_FALSE(prefs.boolForKey("zero"));
  EXPECT_FALSE(prefs.boolForKey("list"));

  EXPECT_EQ(prefs.integerForKey("num"), 42);
  EXPECT_EQ(prefs.integerForKey("negNum"), -7);
  EXPECT_EQ(prefs.integerForKey("realNum"), 2);
  EXPECT_EQ(prefs.integerForKey("junk"), 0);
  EXPECT_EQ(prefs.integerForKey("real"), -2);
  EXPECT_EQ(prefs.integerForKey("huge"), INT64_MAX);
  EXPECT_EQ(prefs.integerForKey("wide"), INT64_MAX);
  EXPECT_EQ(prefs.integerForKey("flag"), 1);
  EXPECT_EQ(prefs.unsignedForKey("wide"), UINT64_MAX);
  EXPECT_EQ(prefs.unsignedForKey("negative"), 0u);
  EXPECT_EQ(prefs.unsignedForKey("negNum"), 0u);
  EXPECT_DOUBLE_EQ(prefs.doubleForKey("realNum"), 2.75);
  EXPECT_EQ(prefs.doubleForKey("junk"), 0.0);

  EXPECT_EQ(prefs.stringForKey("two"), std::nullopt);
  EXPECT_EQ(prefs.arrayForKey("list"), Value::Array{1});
  EXPECT_EQ(prefs.dictionaryForKey("list"), std::nullopt);
  EXPECT_EQ(prefs.dateForKey("date"), fromUnixSeconds(1700000000));
  EXPECT_EQ(prefs.dateForKey("num"), std::nullopt);
  EXPECT_EQ(prefs.dataForKey("bytes"), (Value::Data{1, 2}));
  EXPECT_EQ(prefs.dataForKey("yes"), std::nullopt);
}

TEST(PreferencesTest, WritesAreAtomicPrivateAndCreateTheFolder) {
  test::TempDir dir;
  std::filesystem::path config = dir / "config/vorlend";
  Preferences prefs(config, kDomain);
  ASSERT_TRUE(prefs.set("k", 1));
  EXPECT_EQ(test::fileMode(config), 0700u);
  EXPECT_EQ(test::fileMode(prefs.path()), 0600u);
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(prefs.set("k" + std::to_string(i), i));
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(config))
    names.push_back(entry.path().filename());
  EXPECT_EQ(names, std::vector<std::string>{"com.velmo.vorlend.plist"});
  Value stored = fileContents(prefs.path());
  ASSERT_TRUE(stored.isDict());
  EXPECT_EQ(stored.getDict()->size(), 21u);
  EXPECT_EQ(std::string(test::readFile(prefs.path()), 0, 8), "bplist00");
}

TEST(PreferencesTest, AnotherWritersChangeIsSeenOnTheNextRead) {
  test::TempDir dir;
  Preferences mine(dir.path(), kDomain);
  Preferences theirs(dir.path(), kDomain);  // stands for another process on the same file
  mine.registerDefaults({{"VORSessionMaxAge", 172800}});
  ASSERT_TRUE(mine.set("VORPersistSessions", false));
  EXPECT_EQ(mine.integerForKey("VORSessionMaxAge"), 172800);

  ASSERT_TRUE(theirs.set("VORSessionMaxAge", 60));
  EXPECT_EQ(mine.integerForKey("VORSessionMaxAge"), 60);
  EXPECT_FALSE(mine.boolForKey("VORPersistSessions"));

  // A value of the same size written again is still noticed (the file is a new one each time).
  ASSERT_TRUE(theirs.set("VORSessionMaxAge", 61));
  EXPECT_EQ(mine.integerForKey("VORSessionMaxAge"), 61);

  // A write of ours keeps what they wrote in between.
  ASSERT_TRUE(theirs.set("VORPersistSessions", true));
  ASSERT_TRUE(mine.set("sessions", Value::array({Value::dict({{"identifier", "a"}, {"agent", "b"}})})));
  EXPECT_TRUE(theirs.boolForKey("VORPersistSessions"));
  EXPECT_EQ(theirs.arrayForKey("sessions")->size(), 1u);
  EXPECT_TRUE(mine.boolForKey("VORPersistSessions"));

  ASSERT_TRUE(theirs.remove("VORSessionMaxAge"));
  EXPECT_EQ(mine.integerForKey("VORSessionMaxAge"), 172800);

  // A change made outside any Preferences object (another program) shows once reads look again, which
  // recheckAll() (the daemon's SIGHUP) makes them do at once.
  std::filesystem::remove(mine.path());
  Preferences::recheckAll();
  EXPECT_TRUE(mine.storedValues().empty());
}

TEST(PreferencesTest, XmlFilesAreReadToo) {
  test::TempDir dir;
  Preferences prefs(dir.path(), kDomain);
  test::writeFile(prefs.path(), Archive::encodeXML(Value::dict({{"VORBagURL", "http://127.0.0.1:1/bag"}})));
  EXPECT_EQ(*prefs.stringForKey("VORBagURL"), "http://127.0.0.1:1/bag");
}

TEST(PreferencesTest, UndecodableFileIsLoggedOnceReadAsEmptyAndReplacedByTheNextWrite) {
  test::TempDir dir;
  Preferences prefs(dir.path(), kDomain);
  prefs.registerDefaults({{"VORUseQuintara", true}});
  test::writeFile(prefs.path(), "bplist00 this is not a property list at all........................");
  ScopedLogCapture capture;
  EXPECT_TRUE(prefs.boolForKey("VORUseQuintara"));
  EXPECT_TRUE(prefs.storedValues().empty());
  EXPECT_FALSE(prefs.contains("anything"));
  size_t errors = 0;
  for (const LogRecord& r : capture.sink().records()) {
    if (r.level == LogLevel::Error && r.message.find(prefs.path().string()) != std::string::npos) ++errors;
  }
  EXPECT_EQ(errors, 1u);

  // A root that is not a dictionary is just as unusable.
  Preferences other(dir.path(), "other");
  test::writeFile(other.path(), Archive::encodeXML(Value::array({1})));
  EXPECT_TRUE(other.storedValues().empty());

  ASSERT_TRUE(prefs.set("VORUseQuintara", false));
  EXPECT_EQ(fileContents(prefs.path()), Value::dict({{"VORUseQuintara", false}}));
  Preferences fresh(dir.path(), kDomain);
  EXPECT_FALSE(fresh.boolForKey("VORUseQuintara"));
}

// Makes every write that would grow a file beyond `bytes` fail with EFBIG, even for root, for the
// lifetime of the object.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &previous_);
    rlimit limit = previous_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &previous_);
    std::signal(SIGXFSZ, previousHandler_);
  }

 private:
  rlimit previous_{};
  void (*previousHandler_)(int);
};

// Two writers (two objects here, each with its own descriptor, as two processes have) changing different
// keys at the same moment: each write re-reads under the folder lock, so no key is lost to the later rename.
TEST(PreferencesTest, ConcurrentWritersOfDifferentKeysKeepEveryKey) {
  test::TempDir dir;
  constexpr int kEach = 60;
  auto writeKeys = [&](const std::string& prefix) {
    Preferences prefs(dir.path(), kDomain);
    for (int i = 0; i < kEach; ++i) ASSERT_TRUE(prefs.set(prefix + std::to_string(i), i));
  };
  std::thread daemonSide(writeKeys, "d");
  writeKeys("t");
  daemonSide.join();
  EXPECT_EQ(fileContents(dir / "com.velmo.vorlend.plist").getDict()->size(), 2u * kEach);
}

// Another process that keeps the folder locked delays a write by the lock's wait, never for ever.
TEST(PreferencesTest, AFolderLockHeldForeverDelaysAWriteButDoesNotStopIt) {
  test::TempDir dir;
  UniqueFd holder(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(holder.get(), LOCK_EX), 0);
  Preferences prefs(dir.path(), kDomain);
  ScopedLogCapture capture;
  ASSERT_TRUE(prefs.set("k", 1));
  bool logged = false;
  for (const LogRecord& r : capture.sink().records())
    logged |= r.level == LogLevel::Error && r.message.find("held too long") != std::string::npos;
  EXPECT_TRUE(logged);
  EXPECT_EQ(fileContents(prefs.path()), Value::dict({{"k", 1}}));
}

TEST(PreferencesTest, FailedWriteIsLoggedLeavesTheOldFileAndIsRetriedBySynchronize) {
  test::TempDir dir;
  Preferences prefs(dir.path(), kDomain);
  ASSERT_TRUE(prefs.set("old", 1));
  const std::string before = test::readFile(prefs.path());
  {
    FileSizeLimit limit(16);
    ScopedLogCapture capture;
    EXPECT_FALSE(prefs.set("new", 2));
    bool logged = false;
    for (const LogRecord& r : capture.sink().records()) {
      logged |= r.level == LogLevel::Error && r.message.find("could not be written") != std::string::npos;
    }
    EXPECT_TRUE(logged);
  }
  EXPECT_EQ(test::readFile(prefs.path()), before);
  size_t entries = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.path())) ++entries;
  EXPECT_EQ(entries, 1u);  // no temporary file left behind

  // The unsaved value is what reads see, also after another writer changed the file.
  Preferences peer(dir.path(), kDomain);
  ASSERT_TRUE(peer.set("peer", 3));
  EXPECT_EQ(prefs.integerForKey("new"), 2);
  EXPECT_EQ(prefs.integerForKey("old"), 1);

  ASSERT_TRUE(prefs.synchronize());
  EXPECT_EQ(fileContents(prefs.path()), Value::dict({{"old", 1}, {"new", 2}}));
  EXPECT_EQ(peer.integerForKey("new"), 2);
}

TEST(PreferencesTest, ConcurrentReadersAndWritersAgree) {
  test::TempDir dir;
  Preferences prefs(dir.path(), kDomain);
  Preferences peer(dir.path(), kDomain);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        prefs.set("writer" + std::to_string(t), i);
        (void)peer.integerForKey("writer0");
        (void)prefs.storedValues();
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 3; ++t) EXPECT_EQ(prefs.integerForKey("writer" + std::to_string(t)), 19);
  EXPECT_EQ(peer.storedValues().size(), 3u);
}

}  // namespace
}  // namespace vorlen
