#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/system/system_error.hpp>

#include "MorlLan.h"
#include "RequireLan.h"
#include "morl/udp_server.h"

using namespace morltest;

namespace {

struct Received {
  std::vector<unsigned char> bytes;
  unsigned int address;
};

class Collector : public IReceive {
 public:
  void receive(unsigned char* data, unsigned long length, unsigned int address) override {
    std::lock_guard<std::mutex> lock(m);
    got.push_back({std::vector<unsigned char>(data, data + length), address});
    changed.notify_all();
  }
  bool waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(m);
    return changed.wait_for(lock, std::chrono::seconds(5), [&] { return got.size() >= count; });
  }
  std::vector<Received> all() {
    std::lock_guard<std::mutex> lock(m);
    return got;
  }

 private:
  std::mutex m;
  std::condition_variable changed;
  std::vector<Received> got;
};

// A udp_server whose context runs on a thread of its own, as in a discovery.
class RunningServer {
 public:
  explicit RunningServer(IReceive* receiver) : server(receiver) {
    server.init(context);
    thread = std::thread([this] { context.run(); });
  }
  ~RunningServer() { halt(); }
  void halt() {
    if (halted) return;
    halted = true;
    context.stop();
    thread.join();
    server.stop();
  }
  udp_server& get() { return server; }

 private:
  boost::asio::io_context context;
  udp_server server;
  std::thread thread;
  bool halted = false;
};

std::vector<unsigned char> pattern(std::size_t size) {
  std::vector<unsigned char> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i % 251);
  return bytes;
}

bool portFree() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(4792);
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

}  // namespace

TEST(UdpServer, LongDatagramIsCutTo1024BytesAndReceivingGoesOn) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  ASSERT_TRUE(lan.enter());
  Collector collector;
  RunningServer server(&collector);
  auto sent = lan.run("d2", peer({"send", "--to", "10.0.0.1", "1100", "10", "1024"}));
  ASSERT_EQ(sent.status, 0) << sent.err;
  ASSERT_TRUE(collector.waitFor(3));
  auto got = collector.all();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].bytes, pattern(1024));
  EXPECT_EQ(got[1].bytes, pattern(10));
  EXPECT_EQ(got[2].bytes, pattern(1024));
  for (const auto& r : got) EXPECT_EQ(r.address, 0x0A000002u);
}

TEST(UdpServer, SendBroadcastsACopyToPort4792) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  std::vector<pid_t> listeners;
  for (const char* node : {"d2", "d3"}) {
    listeners.push_back(lan.spawn(node, peer({"listen", "--wait", "10000"}), scratch.path(node)));
    ASSERT_TRUE(waitForText(scratch.path(node), "ready\n"));
  }
  ASSERT_TRUE(lan.enter());
  Collector collector;
  RunningServer server(&collector);
  {
    std::vector<unsigned char> bytes = pattern(40);
    server.get().send(bytes.data(), bytes.size());
    // The caller's bytes may change as soon as send returns.
    std::fill(bytes.begin(), bytes.end(), 0xEE);
  }
  for (const char* node : {"d2", "d3"})
    EXPECT_TRUE(waitForText(scratch.path(node), "10.0.0.1 ")) << node;
  for (pid_t pid : listeners) EXPECT_EQ(lan.stop(pid, std::chrono::milliseconds(5000)), 0);
  for (const char* node : {"d2", "d3"}) {
    auto got = datagramsIn(readText(scratch.path(node)));
    ASSERT_EQ(got.size(), 1u) << node;
    EXPECT_EQ(got[0].from, "10.0.0.1");
    EXPECT_EQ(got[0].bytes, pattern(40));
  }
}

TEST(UdpServer, TakenPortMakesInitThrow) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({});
  ASSERT_TRUE(lan.ok());
  ASSERT_TRUE(lan.enter());
  int fd = occupyUdpPort(4792);
  ASSERT_GE(fd, 0);
  Collector collector;
  boost::asio::io_context context;
  udp_server server(&collector);
  try {
    server.init(context);
    ADD_FAILURE() << "init did not throw";
    server.stop();
  } catch (const boost::system::system_error& e) {
    EXPECT_EQ(e.code(), boost::system::errc::address_in_use) << e.what();
  }
  close(fd);
}

TEST(UdpServer, NothingArrivesAfterStop) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  ASSERT_TRUE(lan.enter());
  Collector collector;
  RunningServer server(&collector);
  ASSERT_EQ(lan.run("d2", peer({"send", "--to", "10.0.0.1", "20"})).status, 0);
  ASSERT_TRUE(collector.waitFor(1));
  server.halt();
  EXPECT_TRUE(portFree());
  ASSERT_EQ(lan.run("d2", peer({"send", "--to", "10.0.0.1", "30"})).status, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  auto got = collector.all();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].bytes, pattern(20));
}
