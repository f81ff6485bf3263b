#include "client/VorlenClient.h"

#include <utility>

#include "client/VorlenClientCore.h"

namespace vorlen {

std::shared_ptr<VorlenClient> VorlenClient::create(VorlenClientOptions options) {
  return std::shared_ptr<VorlenClient>(new VorlenClient(VorlenClientCore::create(std::move(options))));
}

VorlenClient::VorlenClient(std::shared_ptr<VorlenClientCore> core) : core_(std::move(core)) {}
VorlenClient::~VorlenClient() = default;

const std::filesystem::path& VorlenClient::socketPath() const {
  return core_->socketPath();
}
const std::shared_ptr<Queue>& VorlenClient::queue() const {
  return core_->queue();
}
std::optional<IpcEndpoint> VorlenClient::endpoint() const {
  return core_->endpoint();
}
bool VorlenClient::isConnected() const {
  return core_->isConnected();
}
size_t VorlenClient::pendingCallCount() const {
  return core_->pendingCallCount();
}

void VorlenClient::onBagDidLoad(std::function<void(std::optional<VORBag>, std::optional<VORError>)> handler) {
  core_->onBagDidLoad(std::move(handler));
}
void VorlenClient::onDidDownloadResource(std::function<void(const std::string& identifier)> handler) {
  core_->onDidDownloadResource(std::move(handler));
}
void VorlenClient::onDidDeleteResource(std::function<void(const std::string& identifier)> handler) {
  core_->onDidDeleteResource(std::move(handler));
}
void VorlenClient::configure(VORSessionConfiguration configuration, Callback<IpcEndpoint> done) {
  core_->configure(std::move(configuration), std::move(done));
}
ClientResult<IpcEndpoint> VorlenClient::configure(VORSessionConfiguration configuration) {
  return core_->configure(std::move(configuration));
}
void VorlenClient::bag(Callback<BagReply> done) {
  core_->bag(std::move(done));
}
ClientResult<BagReply> VorlenClient::bag() {
  return core_->bag();
}
void VorlenClient::refreshBag(Callback<BagReply> done) {
  core_->refreshBag(std::move(done));
}
ClientResult<BagReply> VorlenClient::refreshBag() {
  return core_->refreshBag();
}
void VorlenClient::request(const VORRequest& request, Callback<RequestReply> done) {
  core_->request(request, std::move(done));
}
ClientResult<RequestReply> VorlenClient::request(const VORRequest& request) {
  return core_->request(request);
}
void VorlenClient::reportEvent(std::string eventName, uint64_t queryId, Value feedbackRecord,
                               Callback<Sent> done) {
  core_->reportEvent(std::move(eventName), queryId, std::move(feedbackRecord), std::move(done));
}
ClientResult<Sent> VorlenClient::reportEvent(std::string eventName, uint64_t queryId, Value feedbackRecord) {
  return core_->reportEvent(std::move(eventName), queryId, std::move(feedbackRecord));
}
void VorlenClient::feedback(Callback<FeedbackReply> done) {
  core_->feedback(std::move(done));
}
ClientResult<FeedbackReply> VorlenClient::feedback() {
  return core_->feedback();
}
void VorlenClient::listenToFlusher(Callback<IpcEndpoint> done) {
  core_->listenToFlusher(std::move(done));
}
ClientResult<IpcEndpoint> VorlenClient::listenToFlusher() {
  return core_->listenToFlusher();
}
void VorlenClient::listSessions(Callback<std::vector<SessionInfo>> done) {
  core_->listSessions(std::move(done));
}
ClientResult<std::vector<SessionInfo>> VorlenClient::listSessions() {
  return core_->listSessions();
}
void VorlenClient::fileHandleForResource(std::string identifier, Callback<ResourceFile> done) {
  core_->fileHandleForResource(std::move(identifier), std::move(done));
}
ClientResult<ResourceFile> VorlenClient::fileHandleForResource(std::string identifier) {
  return core_->fileHandleForResource(std::move(identifier));
}
void VorlenClient::clearEngagedCompletions(Time from, Time to, Callback<Sent> done) {
  core_->clearEngagedCompletions(from, to, std::move(done));
}
ClientResult<Sent> VorlenClient::clearEngagedCompletions(Time from, Time to) {
  return core_->clearEngagedCompletions(from, to);
}
void VorlenClient::addCompletion(std::string completion, std::string input, Callback<Sent> done) {
  core_->addCompletion(std::move(completion), std::move(input), std::move(done));
}
ClientResult<Sent> VorlenClient::addCompletion(std::string completion, std::string input) {
  return core_->addCompletion(std::move(completion), std::move(input));
}
void VorlenClient::updateParameters(const CompletionParameters& parameters, Callback<Sent> done) {
  core_->updateParameters(parameters, std::move(done));
}
ClientResult<Sent> VorlenClient::updateParameters(const CompletionParameters& parameters) {
  return core_->updateParameters(parameters);
}
void VorlenClient::getImageMap(Callback<Value::Dict> done) {
  core_->getImageMap(std::move(done));
}
ClientResult<Value::Dict> VorlenClient::getImageMap() {
  return core_->getImageMap();
}
void VorlenClient::requestViaEndpoint(const IpcEndpoint& endpoint, const VORRequest& request,
                                      const VORSessionConfiguration& configuration,
                                      Callback<RequestReply> done) {
  core_->requestViaEndpoint(endpoint, request, configuration, std::move(done));
}
ClientResult<RequestReply> VorlenClient::requestViaEndpoint(const IpcEndpoint& endpoint,
                                                            const VORRequest& request,
                                                            const VORSessionConfiguration& configuration) {
  return core_->requestViaEndpoint(endpoint, request, configuration);
}

}  // namespace vorlen
