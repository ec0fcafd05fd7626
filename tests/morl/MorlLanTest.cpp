#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <thread>

#include <boost/asio/io_context.hpp>

#include "VarnockOnLan.h"
#include "morl/IMORLEndpoint.h"
#include "morl/MORL_Discover.h"
#include "morl/udp_server.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Strings = std::vector<std::string>;
using Type = MORL::Header::Type;
struct Uuid {
  unsigned char b[12];
};
Uuid uuid(unsigned char x) { return {{x, x, x, x, x, x, x, x, x, x, x, x}}; }
const Type Discovery = MORL::Header::Discovery, Directed = MORL::Header::DirectedDiscovery,
           Tame = MORL::Header::Tame, Whistle = MORL::Header::Whistle;

// A MORL identity whose manager's packets are kept in `sent`. A listening one also
// broadcasts them and keeps what it hears on port 4792 of the namespace it was made in.
class Node : public IMORLEndpoint, public IReceive {
  using Services = QM::Span<const MORL::SupportedServiceBlock>;

 public:
  Node(Uuid me, bool listening, Uuid owner = uuid(0), std::string name = "varnock-device")
      : me(me), owner(owner), name(std::move(name)), listening(listening) {
    manager.init(this);
    if (listening) server.init(context);
  }
  ~Node() override {
    if (listening) server.stop();
  }
  void getMyUUID(unsigned char (&u)[12]) const override { std::copy_n(me.b, 12, u); }
  void getOwnerUUID(unsigned char (&u)[12]) const override { std::copy_n(owner.b, 12, u); }
  void getDeviceName(char (&n)[30]) const override { strncpy(n, name.c_str(), 30); }
  void getSoftwareVersion(char (&v)[20]) const override { strncpy(v, version.c_str(), 20); }
  Services getSupportedServiceSet() const override { return {services.data(), services.size()}; }
  bool unicastSupported() const override { return unicast; }
  bool acceptsIncomingTameRequests(const unsigned char (&)[12]) const override { return false; }
  void onTameRequest(const unsigned char (&)[12], unsigned, unsigned, void*) override {}
  void onTameResponse(const unsigned char (&)[12]) override {}
  void onResponse(Type, MORLParser&) override {}
  void onWhistleRequest(const unsigned char (&)[12]) override {}
  void send(QM::Span<const unsigned char> packet, unsigned, void*) override {
    sent.assign(packet.begin(), packet.end());
    if (listening) server.send(packet.data(), packet.size());
  }
  void receive(unsigned char* data, unsigned long length, unsigned int from) override {
    heard[from & 0xFF].emplace_back(data, data + length);
  }
  /// Sends a request and returns its sequence number.
  unsigned short request(Type type, const Uuid& to) {
    manager.sendRequest(type, 0xFFFFFFFF, to.b, nullptr);
    return static_cast<unsigned short>(sent[2] | sent[3] << 8);
  }
  /// The datagrams heard from host number `host` once there are `count` of them.
  std::vector<Bytes> from(int host, size_t count) {
    context.poll();
    while (heard[host].size() < count && context.run_one_for(std::chrono::seconds(10))) continue;
    return heard[host];
  }

  Uuid me, owner;
  std::string name, version = "1.0.0";
  std::vector<MORL::SupportedServiceBlock> services;
  bool unicast = true;
  Bytes sent;
  MORLManager manager;

 private:
  boost::asio::io_context context;
  udp_server server{this};
  bool listening = false;
  std::map<int, std::vector<Bytes>> heard;
};

// The finder, three varnock-devices, a node that probes them all, and one with the
// finder's UUID that asks for broadcast answers: the finder hears every device twice.
TEST(MorlLan, FinderAndDevicesAnswerAsConfiguredAndTheFinderRecordsEachDeviceOnce) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3, 4, 5, 10});
  ASSERT_TRUE(lan.ok());
  const std::string e(24, 'e'), name(30, 'N'), version(20, 'V');  // fields without a zero byte
  std::vector<pid_t> devices;
  // clang-format off
  for (auto [host, options] : std::vector<std::pair<int, Strings>>{
           {2, {"--uuid", "aAaAaAaAaAaAaAaAaAaAaAaA", "--owner", e, "--name", "Gate", "--service", "2:513", "--service", "1:2"}},
           {3, {"--uuid", "0b0b0b0b0b0b0b0b0b0b0b0b", "--owner", e, "--name", name, "--software-version", version, "--service", "7:0", "--refuse-tame", "--morl-delay", "1"}},
           {10, {"--uuid", std::string(24, 'c'), "--no-unicast", "--no-service"}}}) {
    // clang-format on
    options.insert(options.begin(), "--no-http");
    devices.push_back(startDevice(lan, Lan::device(host), options, Lan::device(host)));
    ASSERT_GT(devices.back(), 0);
  }
  const Uuid p = uuid(0x0D);
  ASSERT_TRUE(lan.enter("d4"));
  Node prober(p, true), finderLike(uuid(1), false, uuid(2), "d14e");
  ASSERT_TRUE(lan.enter("d5"));
  Node twin(uuid(1), true);
  twin.unicast = false;
  ASSERT_TRUE(lan.enter("finder"));
  MORL_Discover finder;
  std::thread run([&] { EXPECT_TRUE(finder.discover(2)); });
  std::vector<Bytes> fromFinder = prober.from(1, 1);  // the finder's request: its run is on
  finderLike.request(Discovery, uuid(0));             // seeded by the same UUID, it asks alike
  EXPECT_EQ(fromFinder, std::vector<Bytes>{finderLike.sent});
  testing::internal::CaptureStderr();
  EXPECT_FALSE(MORL_Discover().discover(1));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "bind: Address already in use\n");
  const std::vector<std::pair<Type, unsigned char>> requests{
      {Discovery, 0},   {Directed, 1}, {Whistle, 1}, {Tame, 0xAA},  {Whistle, 0xAA},
      {Directed, 0xAA}, {Directed, 7}, {Whistle, 7}, {Discovery, 0}};
  std::vector<unsigned short> s;
  for (auto [type, to] : requests) s.push_back(prober.request(type, uuid(to)));
  Node gate(uuid(0xAA), false, uuid(0xEE), "Gate"), plain(uuid(0xCC), false),
      refuser(uuid(0x0B), false, uuid(0xEE), name);
  finderLike.version = "current";
  refuser.version = version;
  gate.services = {{MORL::ServiceType(2), 513}, {MORL::ServiceType(1), 2}};
  refuser.services = {{MORL::ServiceType(7), 0}};
  plain.unicast = false;
  auto answers = [&](Node& node, std::vector<int> which, std::vector<Bytes> all) {
    for (int i : which) {
      node.manager.sendResponse(requests[i].first, 0, p.b, nullptr, s[i]);
      all.push_back(node.sent);
    }
    return all;
  };
  const auto fromGate = answers(gate, {0}, {}), fromPlain = answers(plain, {0}, {});
  gate.owner = plain.owner = p;  // tamed by the prober
  fromFinder = answers(finderLike, {0, 1, 2, 8}, fromFinder);
  EXPECT_EQ(prober.from(1, 5), fromFinder);
  EXPECT_EQ(twin.from(1, 5), fromFinder) << "the finder answers by broadcast";
  EXPECT_EQ(prober.from(2, 5), answers(gate, {3, 4, 5, 8}, fromGate));
  EXPECT_EQ(prober.from(3, 2), answers(refuser, {0, 8}, {}));
  EXPECT_EQ(prober.from(10, 3), answers(plain, {3, 8}, fromPlain));
  EXPECT_TRUE(twin.from(2, 0).empty()) << "the devices answer unicast requests by unicast";
  const std::string by = "0d0d0d0d0d0d0d0d0d0d0d0d\n";
  EXPECT_EQ(Lan::readText(lan.scratchFile("d2")), "ready\ntamed by " + by + "whistle from " + by);
  EXPECT_EQ(Lan::readText(lan.scratchFile("d3")), "ready\n");
  EXPECT_EQ(Lan::readText(lan.scratchFile("d10")), "ready\ntamed by " + by);
  const Bytes big(1100, 0x5A);  // cut to the receive buffer of 1024 bytes; receiving goes on
  for (size_t n : {1000, 1100, 10}) prober.send({big.data(), n}, 0, nullptr);
  const std::vector<Bytes> all = twin.from(4, requests.size() + 3);
  const std::vector<Bytes> tail(all.end() - 3, all.end());
  EXPECT_EQ(tail, (std::vector<Bytes>{Bytes(1000, 0x5A), Bytes(1024, 0x5A), Bytes(10, 0x5A)}));
  twin.request(Discovery, uuid(0));
  run.join();
  std::vector<Strings> found;
  for (const Entry& e : finder.entries) found.push_back({e.ip, e.name, e.version, e.device_type});
  EXPECT_EQ(found, (std::vector<Strings>{{"10.0.0.10", "varnock-device", "1.0.0", ""},
                                         {"10.0.0.2", "Gate", "1.0.0", "extender_brask"},
                                         {"10.0.0.3", name, version, "uknown"}}));
  for (pid_t pid : devices) EXPECT_EQ(lan.stop(pid), 0);
  Node after(uuid(0), true);  // the run gave the port back
}

}  // namespace
