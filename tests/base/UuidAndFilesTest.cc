#include <gtest/gtest.h>

#include <set>

#include "base/FileUtil.h"
#include "base/Paths.h"
#include "base/Transaction.h"
#include "base/Uuid.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

TEST(UuidTest, RandomIsVersion4AndRoundTripsThroughText) {
  std::set<Uuid> seen;
  for (int i = 0; i < 100; ++i) {
    Uuid u = Uuid::random();
    EXPECT_EQ(u.bytes()[6] >> 4, 4);
    EXPECT_EQ(u.bytes()[8] & 0xc0, 0x80);
    EXPECT_EQ(Uuid::parse(u.string()), u);
    seen.insert(u);
  }
  EXPECT_EQ(seen.size(), 100u);
  EXPECT_EQ(Uuid::parse("1b4e28ba-2fa1-41d2-883f-0016d3cca427")->string(),
            "1B4E28BA-2FA1-41D2-883F-0016D3CCA427");
  for (const char* bad : {"", "1b4e28ba2fa141d2883f0016d3cca427", "1b4e28ba-2fa1-41d2-883f-0016d3cca42g",
                          "1b4e28ba-2fa1-41d2-883f_0016d3cca427"})
    EXPECT_FALSE(Uuid::parse(bad)) << bad;
  EXPECT_FALSE(Uuid::fromBytes(nullptr, 16));
  EXPECT_TRUE(Uuid().isNil());
}

TEST(FileUtilTest, AtomicWriteIsPrivateAndLeavesNoTemporaries) {
  test::TempDir dir;
  auto f = dir / "x.plist";
  ASSERT_TRUE(writeFileAtomically(f, std::string_view("one")));
  ASSERT_TRUE(writeFileAtomically(f, std::string_view("two")));
  EXPECT_EQ(test::readFile(f), "two");
  EXPECT_EQ(test::fileMode(f), 0600u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
  std::string err;
  EXPECT_FALSE(writeFileAtomically(dir / "missing" / "y", std::string_view("z"), &err));
  EXPECT_FALSE(err.empty());
  auto bytes = readWholeFile(f, 2, &err);
  EXPECT_FALSE(bytes);  // larger than the bound
  EXPECT_TRUE(readWholeFile(f));
  // The folder sync after the rename: a folder that is not one says so.
  EXPECT_TRUE(syncDirectory(dir.path(), &err));
  EXPECT_FALSE(syncDirectory(f, &err));
  EXPECT_EQ(err, "open folder " + f.string() + ": Not a directory");
}

TEST(PathsTest, CreatesPrivateFoldersAndHonoursSocketOverride) {
  test::TempDir dir;
  Paths p = Paths::underRoot(dir.path());
  ASSERT_TRUE(p.create());
  for (auto& d : {p.runtimeDir, p.configDir, p.cachesDir}) EXPECT_EQ(test::fileMode(d), 0700u) << d;
  EXPECT_EQ(p.serviceSocket.filename(), "com.velmo.vorlend");

  setenv("XDG_RUNTIME_DIR", dir.path().c_str(), 1);
  setenv("VORLEND_SOCKET", "/x/y.sock", 1);
  setenv("XDG_CACHE_HOME", (dir / "c").c_str(), 1);
  Paths e = Paths::fromEnvironment();
  unsetenv("VORLEND_SOCKET");
  EXPECT_EQ(e.runtimeDir, dir / "vorlend");
  EXPECT_EQ(e.serviceSocket, "/x/y.sock");
  EXPECT_EQ(e.cachesDir, dir / "c" / "com.velmo.vorlend");
  EXPECT_EQ(Paths::fromEnvironment().serviceSocket, dir / "vorlend" / "com.velmo.vorlend");
}

TEST(TransactionTest, CountsOpenTransactions) {
  int64_t before = Transaction::openCount();
  {
    Transaction a("bagFetch");
    Transaction b("upload");
    EXPECT_EQ(Transaction::openCount(), before + 2);
  }
  EXPECT_EQ(Transaction::openCount(), before);
}

}  // namespace
}  // namespace vorlen
