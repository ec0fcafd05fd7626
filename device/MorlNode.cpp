#include "device/MorlNode.h"

#include <chrono>
#include <memory>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/steady_timer.hpp>

#include "morl/udp_server.h"

namespace {
constexpr unsigned short morlPort = udp_server::port;
}

MorlNode::MorlNode(boost::asio::io_context& context, const DeviceConfig& config)
    : context(context),
      config(config),
      socket(context, boost::asio::ip::udp::endpoint(boost::asio::ip::address_v4::any(), morlPort)),
      endpoint(config, [this](QM::Span<const unsigned char> packet, unsigned int address) {
        sendPacket(packet, address);
      }) {
  socket.set_option(boost::asio::socket_base::broadcast(true));
  manager.init(&endpoint);
}

void MorlNode::start() { receiveNext(); }

void MorlNode::stop() {
  boost::system::error_code ignored;
  socket.close(ignored);
}

void MorlNode::receiveNext() {
  socket.async_receive_from(boost::asio::buffer(buffer), sender,
                            [this](const boost::system::error_code& error, std::size_t bytes) {
                              if (error && error != boost::asio::error::message_size) return;
                              if (sender.address().is_v4())
                                manager.receive(QM::Span<const unsigned char>(buffer, bytes),
                                                sender.address().to_v4().to_uint(), nullptr);
                              receiveNext();
                            });
}

void MorlNode::sendPacket(QM::Span<const unsigned char> packet, unsigned int address) {
  auto bytes = std::make_shared<std::vector<unsigned char>>(packet.begin(), packet.end());
  boost::asio::ip::udp::endpoint to(boost::asio::ip::address_v4(address), morlPort);
  auto transmit = [this, bytes, to] {
    socket.async_send_to(boost::asio::buffer(*bytes), to,
                         [bytes](const boost::system::error_code&, std::size_t) {});
  };
  if (config.morlDelayMs == 0) {
    transmit();
    return;
  }
  auto timer = std::make_shared<boost::asio::steady_timer>(
      context, std::chrono::milliseconds(config.morlDelayMs));
  timer->async_wait([timer, transmit](const boost::system::error_code& error) {
    if (!error) transmit();
  });
}
