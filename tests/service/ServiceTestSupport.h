// An in-process service for the client-facing tests: the real VorlenService and ClientStateManager on a
// private folder and a manual clock, a real listener socket, and a session manager that records what
// reaches it. Clients are real IpcConnections.
#pragma once

#include <gtest/gtest.h>

#include "base/Counters.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "feedback/ClientSessionManagerProtocol.h"
#include "ipc/IpcTestSupport.h"
#include "model/VORError.h"
#include "model/VORSessionConfiguration.h"
#include "platform/Assembly.h"
#include "service/ClientStateManager.h"
#include "service/VorlenService.h"
#include "support/TestPlatform.h"

namespace vorlen::test {

class RecordingSessionManager : public ClientSessionManagerProtocol {
 public:
  void addVorlenFeedback(VorlenFeedback feedback) override {
    std::lock_guard lock(mu_);
    feedbacks_.push_back(std::move(feedback));
  }
  void flushSessionInvalidationWithAgent(const std::string& agent,
                                         std::function<void(bool)> callback) override {
    invalidatedAgents.put(agent);
    if (callback) callback(false);
  }
  Value::Array currentSessionFeedbacksWithRelativeTimestamp() override {
    std::lock_guard lock(mu_);
    Value::Array out;
    for (const auto& f : feedbacks_) out.push_back(f.feedback.toRecord());
    return out;
  }
  std::vector<VorlenFeedback> feedbacks() const {
    std::lock_guard lock(mu_);
    return feedbacks_;
  }
  Inbox<std::string> invalidatedAgents;

 private:
  mutable std::mutex mu_;
  std::vector<VorlenFeedback> feedbacks_;
};

// One call's reply arguments.
using Reply = Value::Array;

class ServiceFixture : public ::testing::Test {
 protected:
  void SetUp() override { start(); }
  void TearDown() override {
    for (auto& c : clients) c->invalidate();
    clients.clear();
    if (listener) listener->invalidate();
  }

  void start(bool persist = false) {
    platform = test::platformForTesting(dir / "root", clock);
    Counters::install(platform.counters);
    assembly = std::make_shared<Assembly>(platform);
    assembly->userDefaults = std::make_shared<Preferences>(platform.paths.configDir, "com.velmo.vorlend");
    if (persist) assembly->userDefaults->set("VORPersistSessions", Value(true));
    assembly->notificationCenter = platform.notificationCenter;
    assembly->clientSessionManager = sessions;
    prepareAssembly();
    ClientStateManagerOptions managerOptions;
    managerOptions.endpointSlotWait = std::chrono::milliseconds(20);
    assembly->clientStateManager = ClientStateManager::create(assembly, managerOptions);
    service = VorlenService::create(assembly);
    IpcListenerOptions options;
    options.connection.runtime = runtime;
    std::string error;
    listener = IpcListener::named(platform.paths.serviceSocket, options, &error);
    ASSERT_TRUE(listener) << error;
    listener->setDelegate(service);
    listener->resume();
  }

  // Fills further Assembly slots before the client states and the service are made.
  virtual void prepareAssembly() {}

  // A resumed client whose daemon-to-client calls land in `calls`.
  std::shared_ptr<IpcConnection> connect(std::shared_ptr<Inbox<IpcMessage>> calls = nullptr,
                                         const std::filesystem::path& path = {}) {
    IpcConnectionOptions o;
    o.runtime = runtime;
    std::string error;
    auto c = IpcConnection::connect(path.empty() ? platform.paths.serviceSocket : path, o, &error);
    EXPECT_TRUE(c) << error;
    if (!c) return nullptr;
    if (calls) c->setCallHandler([calls](const IpcMessage& m, IpcReplier) { calls->put(m); });
    c->resume();
    clients.push_back(c);
    return c;
  }

  static std::optional<Reply> call(const std::shared_ptr<IpcConnection>& c, std::string op, Value::Array args,
                                   std::chrono::milliseconds wait = std::chrono::seconds(20)) {
    return callAndWait(c, std::move(op), std::move(args), wait);
  }

  static Value configuration(std::string identifier, std::string agent) {
    VORSessionConfiguration c;
    c.identifier = std::move(identifier);
    c.userAgent = std::move(agent);
    return c.toRecord();
  }

  static std::optional<VORError> errorOf(const Value& v) {
    if (v.className() != VORError::kClassName) return std::nullopt;
    return VORError::fromRecord(v);
  }

  TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<IpcRuntime> runtime = IpcRuntime::create();
  std::shared_ptr<RecordingSessionManager> sessions = std::make_shared<RecordingSessionManager>();
  Platform platform;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<VorlenService> service;
  std::shared_ptr<IpcListener> listener;
  std::vector<std::shared_ptr<IpcConnection>> clients;
};

}  // namespace vorlen::test
