#include "host/quorvel/serve/serve_command.h"

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <iostream>
#include <string>
#include <thread>

#include "host/quorvel/serve/server.h"

namespace quorvel::serve {
namespace {

// SIGINT and SIGTERM, blocked in every thread and taken by one that stops the server.
sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

bool is_loopback(const std::string& host) {
  return host == "localhost" || host == "::1" || host.starts_with("127.");
}

}  // namespace

int serve_command(const ServeOptions& options) {
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  Server server(options, standard_error_log());
  const int port = server.bind();
  std::cerr << "quorvel serve: listening on http://" << options.host << ":" << port << std::endl;
  if (!is_loopback(options.host) && options.api_key.empty()) {
    std::cerr << "quorvel serve: warning: " << options.host
              << " is reachable from other machines and no --api-key is set: anyone who reaches the port can use "
                 "the model"
              << std::endl;
  }
  std::atomic<bool> signalled{false};
  std::thread stopper([&] {
    int signal = 0;
    sigwait(&signals, &signal);
    signalled = true;
    server.stop();
  });
  server.run();
  if (!signalled) kill(getpid(), SIGTERM);  // wakes the stopper
  stopper.join();
  std::cerr << "quorvel serve: stopped" << std::endl;
  return 0;
}

}  // namespace quorvel::serve
