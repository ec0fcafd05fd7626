#include "device/MorlNode.h"

#include <chrono>
#include <memory>

#include <boost/asio/buffer.hpp>
#include <boost/asio/steady_timer.hpp>

#include "device/NamedBind.h"
#include "morl/udp_server.h"

namespace {

constexpr unsigned short morlPort = udp_server::port;

boost::asio::ip::udp::socket bound(boost::asio::io_context& context, unsigned int address,
                                   bool reuse) {
  boost::asio::ip::udp::socket socket(context, boost::asio::ip::udp::v4());
  socket.set_option(boost::asio::socket_base::reuse_address(reuse));
  socket.set_option(boost::asio::socket_base::broadcast(true));
  bindNamed(socket, {boost::asio::ip::address_v4(address), morlPort});
  return socket;
}

/// Receives into `buffer` until the socket closes; `hand` gets each IPv4 datagram.
template <typename Hand>
void receiveLoop(boost::asio::ip::udp::socket& socket, boost::asio::ip::udp::endpoint& sender,
                 unsigned char (&buffer)[1024], Hand hand) {
  socket.async_receive_from(
      boost::asio::buffer(buffer), sender,
      [&socket, &sender, &buffer, hand](const boost::system::error_code& error, std::size_t bytes) {
        if (error && error != boost::asio::error::message_size) return;
        if (sender.address().is_v4())
          hand(QM::Span<const unsigned char>(buffer, bytes), sender.address().to_v4().to_uint());
        receiveLoop(socket, sender, buffer, hand);
      });
}

}  // namespace

MorlNode::MorlNode(boost::asio::io_context& context, const DeviceConfig& config)
    : context(context),
      config(config),
      socket(bound(context, config.address, config.address != 0)),
      endpoint(config, [this](QM::Span<const unsigned char> packet, unsigned int address) {
        sendPacket(packet, address);
      }) {
  manager.init(&endpoint);
}

void MorlNode::start() {
  receiveLoop(socket, sender, buffer,
              [this](QM::Span<const unsigned char> datagram, unsigned int from) {
                deliver(datagram, from);
              });
}

void MorlNode::stop() {
  boost::system::error_code ignored;
  socket.close(ignored);
}

void MorlNode::deliver(QM::Span<const unsigned char> datagram, unsigned int from) {
  manager.receive(datagram, from, nullptr);
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

MorlBroadcast::MorlBroadcast(boost::asio::io_context& context, std::vector<MorlNode*> nodes)
    : socket(bound(context, 0, true)), nodes(std::move(nodes)) {}

void MorlBroadcast::start() {
  receiveLoop(socket, sender, buffer,
              [this](QM::Span<const unsigned char> datagram, unsigned int from) {
                for (MorlNode* node : nodes) node->deliver(datagram, from);
              });
}

void MorlBroadcast::stop() {
  boost::system::error_code ignored;
  socket.close(ignored);
}
