#include "morl/MORL_Discover.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>
#include <thread>

#include <boost/asio/io_context.hpp>

#include "morl/ControllerInfo.h"
#include "morl/udp_server.h"
#include "qm/ErrorText.h"

namespace {

// Stops the context and joins its thread, also when the run ends by an
// exception; a joinable std::thread must never be destroyed.
class IoThread {
 public:
  explicit IoThread(boost::asio::io_context& context)
      : context(context), thread([&context] { context.run(); }) {}
  ~IoThread() { stop(); }
  void stop() {
    context.stop();
    if (thread.joinable()) thread.join();
  }

 private:
  boost::asio::io_context& context;
  std::thread thread;
};

// Frees the server's socket once, also when the run ends by an exception
// after a successful init.
class ServerStop {
 public:
  explicit ServerStop(udp_server& server) : server(server) {}
  ~ServerStop() { stop(); }
  void stop() {
    if (!stopped) server.stop();
    stopped = true;
  }

 private:
  udp_server& server;
  bool stopped = false;
};

// Attaches the run's endpoint to the manager for the lifetime of this object.
// Switching the manager off again at the end keeps a later run of the same
// object from handing early datagrams to an endpoint that no longer exists.
class Attachment {
 public:
  Attachment(MORLManager& manager, std::mutex& mutex, IMORLEndpoint& endpoint)
      : manager(manager), mutex(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    manager.init(&endpoint);
  }
  ~Attachment() {
    std::lock_guard<std::mutex> lock(mutex);
    manager.init(nullptr);
  }

 private:
  MORLManager& manager;
  std::mutex& mutex;
};

}  // namespace

bool MORL_Discover::discover(unsigned int seconds) {
  try {
    boost::asio::io_context context;
    udp_server server(this);
    server.init(context);
    ServerStop serverStop(server);
    {
      IoThread ioThread(context);
      ControllerInfo controller(entries, server);
      Attachment attached(manager, runMutex, controller);
      const unsigned char anyone[12] = {};
      {
        std::lock_guard<std::mutex> lock(runMutex);
        manager.sendRequest(MORL::Header::Discovery, 0xFFFFFFFF, anyone, nullptr);
      }
      if (seconds != 0) std::this_thread::sleep_for(std::chrono::seconds(seconds));
      ioThread.stop();
    }
    serverStop.stop();
    std::lock_guard<std::mutex> lock(runMutex);
    std::sort(entries.begin(), entries.end());
    entries.erase(std::unique(entries.begin(), entries.end()), entries.end());
    return true;
  } catch (const std::exception& e) {
    std::cerr << errorText(e) << "\n";
    return false;
  }
}

void MORL_Discover::receive(unsigned char* data, unsigned long length, unsigned int address) {
  std::lock_guard<std::mutex> lock(runMutex);
  manager.receive(QM::Span<const unsigned char>(data, length), address, nullptr);
}
