#include "service/ClientStateManager.h"

#include "model/VORRequest.h"
#include "service/ClientState.h"
#include "service/ServiceTestSupport.h"

namespace vorlen {
namespace {

class ClientStateManagerTest : public test::ServiceFixture {
 protected:
  ClientStateManager& manager() { return *assembly->clientStateManager; }
};

TEST_F(ClientStateManagerTest, OneStatePerIdentifierAndNoneForAnEmptyOne) {
  auto a = manager().stateForClientIdentifier("com.example.a");
  EXPECT_EQ(a, manager().stateForClientIdentifier("com.example.a"));
  EXPECT_NE(a, manager().stateForClientIdentifier("com.example.b"));
  EXPECT_EQ(manager().stateForClientIdentifier(""), nullptr);

  // Only states with a user agent are listed.
  a->setUserAgent("A/1");
  auto sessions = manager().sessions();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(*sessions[0].find("agent")->getString(), "A/1");
}

TEST_F(ClientStateManagerTest, BeyondTheLimitTheLeastRecentlyUsedUnheldStateIsForgotten) {
  auto id = [](size_t i) { return "com.example.client" + std::to_string(i); };
  std::weak_ptr<ClientState> forgotten = manager().stateForClientIdentifier(id(0));
  auto held = manager().stateForClientIdentifier(id(1));  // as a connection would hold it
  std::vector<std::weak_ptr<ClientState>> states;
  for (size_t i = 2; i <= ClientStateManager::kMaxStates; ++i)
    states.push_back(manager().stateForClientIdentifier(id(i)));
  // One past the limit: the oldest unheld state went; the held one, though older than all the rest, stays.
  EXPECT_TRUE(forgotten.expired());
  EXPECT_EQ(manager().stateForClientIdentifier(id(1)), held);
  for (const auto& s : states) EXPECT_FALSE(s.expired());
  // Asking for a forgotten client again makes it anew, and the next least recently used one makes way.
  EXPECT_TRUE(manager().stateForClientIdentifier(id(0)));
  EXPECT_TRUE(states.front().expired());
  EXPECT_FALSE(states.back().expired());
}

// Saving before the answer and a daemon restart are the integration test's; here: off writes nothing, and
// a manager made on stored clients finds them before any client connects.
TEST_F(ClientStateManagerTest, KnownClientsAreLoadedOnlyWhenPersistenceIsOn) {
  auto c = connect();
  ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.browser", "Browser/1")}));
  ASSERT_TRUE(call(c, "listSessions:", {}));
  EXPECT_FALSE(assembly->userDefaults->contains("sessions"));

  // Entries that are not usable are skipped and later duplicates win.
  assembly->userDefaults->set("VORPersistSessions", Value(true));
  auto entry = [](Value identifier, Value agent) {
    return Value::dict({{"identifier", std::move(identifier)}, {"agent", std::move(agent)}});
  };
  assembly->userDefaults->set("sessions",
                              Value(Value::Array{entry(Value("com.example.browser"), Value("Browser/1")),
                                                 entry(Value(int64_t{5}), Value("X/1")),
                                                 entry(Value("com.example.news"), Value(int64_t{1})),
                                                 entry(Value("com.example.mail"), Value("Mail/1")),
                                                 entry(Value("com.example.mail"), Value("Mail/2"))}));
  auto fresh = ClientStateManager::create(assembly);
  auto sessions = fresh->sessions();
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(*sessions[0].find("identifier")->getString(), "com.example.browser");
  EXPECT_EQ(*sessions[0].find("agent")->getString(), "Browser/1");
  EXPECT_EQ(*sessions[1].find("agent")->getString(), "Mail/2");
  // The entry with a non-string agent made a state without agent.
  EXPECT_FALSE(fresh->stateForClientIdentifier("com.example.news")->userAgent());
}

TEST_F(ClientStateManagerTest, EndpointServesMoreResultsAndCardsOnly) {
  auto endpoint = manager().endpoint();
  ASSERT_TRUE(endpoint);
  auto c = connect(nullptr, endpoint->path);
  Value config = configuration("com.example.browser", "Browser/1");

  VORCardRequest card;
  card.queryId = 8;
  auto answered = call(c, "request:configuration:reply:", {card.toRecord(), config});
  ASSERT_TRUE(answered);
  EXPECT_EQ(answered->at(0).getUInt(), 8u);
  EXPECT_TRUE(errorOf(answered->at(2)));

  VORSearchRequest search;
  search.queryId = 9;
  EXPECT_EQ(test::answeredBefore(c, {{"request:configuration:reply:", {search.toRecord(), config}}},
                                 {"request:configuration:reply:", {card.toRecord(), config}}),
            0u);

  auto refused = call(c, "request:configuration:reply:", {card.toRecord(), configuration("", "Browser/1")});
  ASSERT_TRUE(refused);
  auto error = errorOf(refused->at(2));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, 500);
  EXPECT_TRUE(error->reason()->starts_with("invalid configuration ")) << *error->reason();
}

TEST_F(ClientStateManagerTest, EndpointHoldsAtMostTenConnections) {
  ScopedLogCapture capture;
  auto path = manager().endpoint()->path;
  std::vector<std::shared_ptr<IpcConnection>> held;
  for (int i = 0; i < 10; ++i) {
    held.push_back(connect(nullptr, path));
    ASSERT_TRUE(held.back());
  }
  // The eleventh waits for a slot, finds none and is closed.
  test::RawClient eleventh(path);
  ASSERT_TRUE(eleventh.connected());
  EXPECT_TRUE(eleventh.waitForClose());
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "endpoint semaphore timeout"), 1u);

  // A slot freed is a slot taken.
  held.front()->invalidate();
  ASSERT_TRUE(test::eventually([&] {
    return test::countLogLines(capture.sink(), LogLevel::Debug, "endpoint connection invalidated") == 1;
  }));
  auto twelfth = connect(nullptr, path);
  VORMoreResultsRequest more;
  more.queryId = 1;
  EXPECT_TRUE(call(twelfth, "request:configuration:reply:", {more.toRecord(), configuration("a.b", "B/1")}));
}

}  // namespace
}  // namespace vorlen
