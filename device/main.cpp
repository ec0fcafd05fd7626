#include <csignal>
#include <exception>
#include <iostream>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include "device/DeviceConfig.h"
#include "device/InfoServer.h"
#include "device/MorlNode.h"

int main(int argc, char** argv) {
  DeviceConfig config;
  switch (parseDeviceOptions(argc, argv, config, std::cout, std::cerr)) {
    case ParseResult::Exit:
      return 0;
    case ParseResult::Error:
      return 2;
    case ParseResult::Run:
      break;
  }
  try {
    boost::asio::io_context context;
    boost::asio::signal_set signals(context, SIGINT, SIGTERM);
    std::unique_ptr<MorlNode> morl;
    std::unique_ptr<InfoServer> info;
    if (config.morl) morl = std::make_unique<MorlNode>(context, config);
    if (config.http) info = std::make_unique<InfoServer>(context, config);
    signals.async_wait([&](const boost::system::error_code&, int) {
      if (morl) morl->stop();
      if (info) info->stop();
      context.stop();
    });
    if (morl) morl->start();
    if (info) info->start();
    std::cout << "ready" << std::endl;
    context.run();
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "varnock-device: " << e.what() << std::endl;
    return 1;
  }
}
