#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include "device/DeviceConfig.h"

/// HTTP/1.1 info server on the device's address (0.0.0.0 without one) and port: GET
/// "/api/v1/info" gets {"data":{"name":..,"version":..,"device_type":..}} (or
/// the configured body, status and content type), every other request 404.
class InfoServer {
 public:
  /// Binds and listens; throws boost::system::system_error on failure.
  InfoServer(boost::asio::io_context& context, const DeviceConfig& config);
  void start();
  void stop();

 private:
  void acceptNext();

  boost::asio::io_context& context;
  const DeviceConfig& config;
  boost::asio::ip::tcp::acceptor acceptor;
};
