#include "network/VORRetryableNetworkRequest.h"

#include <gtest/gtest.h>

#include <future>

#include "base/ManualClock.h"
#include "network/HttpTestSupport.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using test::CompletionProbe;

class RetryableRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    RefServer::BagControl drop;
    drop.mode = RefServer::BagMode::Drop;
    server.setBagControl(drop);
    HttpSessionSettings s;
    s.name = "retry-test";
    session = HttpSession::create(s);
  }

  HttpRequest bagRequest() const {
    HttpRequest r;
    r.url = server.baseURL() + "/bag";
    return r;
  }

  // Starts the request as the callers do: attempt 1, resumed by the caller.
  void start(const VORRetryableNetworkRequest& request, uint64_t retries, CompletionProbe& probe) {
    dataTaskWithRetryableRequest(session, request, 1, retries, probe.handler(), retryQueue)->resume();
  }

  // Waits until the completion ran and the callback queue (where it runs) has nothing more to deliver.
  void settle(CompletionProbe& probe) {
    ASSERT_TRUE(probe.waitFor(1));
    std::promise<void> done;
    session->callbackQueue()->async([&] { done.set_value(); });
    done.get_future().wait();
  }

  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Queue> retryQueue = Queue::concurrent("test.retry", QueuePriority::UserInitiated, clock);
  RefServer server;
  std::shared_ptr<HttpSession> session;
};

TEST_F(RetryableRequestTest, TransportErrorsAreRetriedUntilNoRetriesAreLeft) {
  CompletionProbe probe;
  VORRetryableNetworkRequest request(bagRequest(), clock->now() + std::chrono::minutes(1), false);
  start(request, 3, probe);
  settle(probe);
  EXPECT_EQ(probe.count(), 1u);
  EXPECT_EQ(server.requestCount("/bag"), 4u);  // the first attempt and three retries
  ASSERT_TRUE(probe.last().error);
  EXPECT_EQ(probe.last().error->code, HttpError::kNetworkConnectionLost);
}

TEST_F(RetryableRequestTest, WithoutAnExpiryARequestIsNeverRetried) {
  CompletionProbe probe;
  VORRetryableNetworkRequest request(bagRequest(), std::nullopt, true);  // as the bag fetch sends it
  start(request, 5, probe);
  settle(probe);
  EXPECT_EQ(probe.count(), 1u);
  EXPECT_EQ(server.requestCount("/bag"), 1u);
  EXPECT_TRUE(probe.last().error);
  EXPECT_EQ(clock->pendingCountForTesting(), 0u);
}

TEST_F(RetryableRequestTest, HttpErrorStatusIsDeliveredAtOnce) {
  RefServer::BagControl unavailable;
  unavailable.mode = RefServer::BagMode::Status;
  unavailable.status = 500;
  server.setBagControl(unavailable);
  CompletionProbe probe;
  VORRetryableNetworkRequest request(bagRequest(), clock->now() + std::chrono::minutes(1), false);
  start(request, 3, probe);
  settle(probe);
  EXPECT_EQ(probe.count(), 1u);
  EXPECT_FALSE(probe.last().error);
  EXPECT_EQ(probe.last().response->status, 500);
  EXPECT_EQ(server.requestCount("/bag"), 1u);
}

TEST_F(RetryableRequestTest, DelayOnFailWaitsOneAndAHalfSecondsOfTheRetryQueueClock) {
  CompletionProbe probe;
  VORRetryableNetworkRequest request(bagRequest(), clock->now() + std::chrono::minutes(1), true);
  start(request, 1, probe);
  ASSERT_TRUE(test::eventually([&] { return clock->pendingCountForTesting() == 1; }));
  EXPECT_EQ(server.requestCount("/bag"), 1u);

  clock->advance(std::chrono::milliseconds(1499));
  EXPECT_EQ(clock->pendingCountForTesting(), 1u);
  EXPECT_EQ(server.requestCount("/bag"), 1u);
  EXPECT_EQ(probe.count(), 0u);

  server.setBagControl({});  // the retry will succeed
  clock->advance(std::chrono::milliseconds(1));
  settle(probe);
  EXPECT_EQ(server.requestCount("/bag"), 2u);
  EXPECT_EQ(probe.count(), 1u);
  EXPECT_FALSE(probe.last().error);
  EXPECT_EQ(probe.last().response->status, 200);
}

TEST_F(RetryableRequestTest, ARetryAfterTheExpiryDeliversItsError) {
  CompletionProbe probe;
  VORRetryableNetworkRequest request(bagRequest(), clock->now() + std::chrono::seconds(1), true);
  start(request, 5, probe);
  ASSERT_TRUE(test::eventually([&] { return clock->pendingCountForTesting() == 1; }));
  clock->advance(std::chrono::milliseconds(1500));  // second attempt, now past the expiry
  settle(probe);
  EXPECT_EQ(server.requestCount("/bag"), 2u);
  EXPECT_EQ(probe.count(), 1u);
  EXPECT_TRUE(probe.last().error);
  EXPECT_EQ(clock->pendingCountForTesting(), 0u);
}

TEST_F(RetryableRequestTest, CancellingTheFirstTaskDoesNotStopAScheduledRetry) {
  CompletionProbe probe;
  VORRetryableNetworkRequest request(bagRequest(), clock->now() + std::chrono::minutes(1), true);
  auto first = dataTaskWithRetryableRequest(session, request, 1, 1, probe.handler(), retryQueue);
  first->resume();
  ASSERT_TRUE(test::eventually([&] { return clock->pendingCountForTesting() == 1; }));
  first->cancel();
  clock->advance(std::chrono::milliseconds(1500));
  settle(probe);
  EXPECT_EQ(server.requestCount("/bag"), 2u);
  EXPECT_EQ(probe.count(), 1u);
}

}  // namespace
}  // namespace vorlen
