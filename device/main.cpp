#include <sys/resource.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include "device/CommandLine.h"
#include "device/InfoServer.h"
#include "device/MdnsResponder.h"
#include "device/MorlNode.h"
#include "qm/ErrorText.h"

int main(int argc, char** argv) {
  const Startup startup = configure(argc, argv, std::cout, std::cerr);
  if (startup.status >= 0) return startup.status;
  // Three sockets a device: a site of a thousand needs more than the usual soft limit.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  try {
    boost::asio::io_context context;
    boost::asio::signal_set signals(context, SIGINT, SIGTERM);
    std::vector<std::unique_ptr<MorlNode>> morl;
    std::vector<MorlNode*> addressed;
    std::vector<std::unique_ptr<InfoServer>> info;
    std::vector<const DeviceConfig*> announced;
    for (const DeviceConfig& config : startup.devices) {
      if (config.morl) {
        morl.push_back(std::make_unique<MorlNode>(context, config));
        if (config.address != 0) addressed.push_back(morl.back().get());
      }
      if (config.http) info.push_back(std::make_unique<InfoServer>(context, config));
      if (config.mdns) announced.push_back(&config);
    }
    std::unique_ptr<MorlBroadcast> broadcast;
    if (!addressed.empty()) broadcast = std::make_unique<MorlBroadcast>(context, addressed);
    std::unique_ptr<MdnsResponder> mdns;
    if (!announced.empty()) mdns = std::make_unique<MdnsResponder>(context, announced);
    signals.async_wait([&](const boost::system::error_code&, int) {
      if (mdns) mdns->stop();
      if (broadcast) broadcast->stop();
      for (auto& node : morl) node->stop();
      for (auto& server : info) server->stop();
      context.stop();
    });
    for (auto& node : morl) node->start();
    if (broadcast) broadcast->start();
    for (auto& server : info) server->start();
    if (mdns) mdns->start();
    std::cout << "ready" << std::endl;
    context.run();
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "varnock-device: " << errorText(e) << std::endl;
    return 1;
  }
}
