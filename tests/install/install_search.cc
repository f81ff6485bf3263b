// An application of the installed client library: it includes only the installed headers, links only
// what pkg-config names, waits for the daemon's bag and sends one search. Prints the reply's size; exits
// non-zero, saying why, when there is no search answer.
#include <chrono>
#include <cstdio>
#include <thread>

#include "client/VorlenClient.h"
#include "model/QXFeedback.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: install_search SOCKET\n");
    return 2;
  }
  vorlen::VorlenClientOptions options;
  options.socketPath = argv[1];
  auto client = vorlen::VorlenClient::create(options);
  vorlen::VORSessionConfiguration configuration;
  configuration.identifier = "com.example.installed";
  configuration.userAgent = "Voyant/5.0";
  auto configured = client->configure(configuration);
  if (!configured.ok()) {
    std::fprintf(stderr, "configure: %s\n", configured.errorText().c_str());
    return 1;
  }
  // The daemon fetches its bag at start; searches are answered once it has one.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (;;) {
    auto bag = client->bag();
    if (bag.ok() && bag.value->bag) break;
    if (std::chrono::steady_clock::now() > deadline) {
      std::fprintf(stderr, "no bag: %s\n", bag.ok() ? "none yet" : bag.errorText().c_str());
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  vorlen::VORSearchRequest request;
  request.queryId = 1;
  request.clientQueryId = 1;
  request.queryString = "new york";
  auto reply = client->request(request);
  if (!reply.ok() || !reply.value->reply) {
    std::fprintf(stderr, "search: %s\n", reply.ok() ? "no reply" : reply.errorText().c_str());
    return 1;
  }
  std::printf("search answered with %zu bytes\n", reply.value->reply->data.size());
  return 0;
}
