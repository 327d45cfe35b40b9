// File: SilentServer.h
// A loopback port that accepts every connection and reads whatever arrives, and never
// answers: a service that hangs. Connections the other side closes are closed too.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace devservice_testing {

class SilentServer {
 public:
  SilentServer() {
    listening_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listening_ < 0 || bind(listening_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listening_, 64) != 0 ||
        getsockname(listening_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        pipe(stop_) != 0) {
      throw std::runtime_error("silent server: cannot listen on loopback");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~SilentServer() {
    const char stop = 1;
    (void)!write(stop_[1], &stop, 1);
    thread_.join();
    close(stop_[0]);
    close(stop_[1]);
    close(listening_);
  }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // Connections accepted so far.
  int connections() const { return connections_.load(); }

 private:
  void run() {
    std::vector<pollfd> watched{{stop_[0], POLLIN, 0}, {listening_, POLLIN, 0}};
    while (true) {
      if (poll(watched.data(), watched.size(), -1) < 0) continue;
      if (watched[0].revents != 0) break;
      if (watched[1].revents & POLLIN) {
        const int client = accept(listening_, nullptr, nullptr);
        if (client >= 0) {
          watched.push_back({client, POLLIN, 0});
          ++connections_;
        }
      }
      for (size_t i = 2; i < watched.size();) {
        char buffer[65536];
        if (watched[i].revents != 0 && read(watched[i].fd, buffer, sizeof buffer) <= 0) {
          close(watched[i].fd);
          watched.erase(watched.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
          ++i;
        }
      }
    }
    for (size_t i = 2; i < watched.size(); ++i) close(watched[i].fd);
  }

  int listening_ = -1;
  int stop_[2] = {-1, -1};
  int port_ = 0;
  std::atomic<int> connections_{0};
  std::thread thread_;
};

}  // namespace devservice_testing
