// vorlen-refserver: serves the reference search service on loopback until SIGINT or SIGTERM. The first
// line on stdout is the base URL ("http://127.0.0.1:PORT"), so a parent started with --port 0 can read the
// port back.
#include <signal.h>

#include <cstdio>
#include <iostream>

#include <CLI/CLI.hpp>

#include "RefServer.h"

int main(int argc, char** argv) {
  CLI::App app{"Reference search service for vorlend"};
  app.set_version_flag("--version", std::string("vorlen-refserver ") + VORLEN_VERSION);
  std::string host = "127.0.0.1";
  int port = 0;
  app.add_option("--host", host, "address to bind")->capture_default_str();
  app.add_option("--port", port, "port to bind; 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  CLI11_PARSE(app, argc, argv);

  // Block the stop signals in every thread; this thread waits for them below.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  vorlen::RefServer server;
  if (!server.start(host, port)) return 1;
  std::cout << server.baseURL() << std::endl;  // endl flushes

  sigdelset(&stopSignals, SIGPIPE);
  int signal = 0;
  sigwait(&stopSignals, &signal);
  server.stop();
  return 0;
}
