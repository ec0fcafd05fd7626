#include "morl/udp_server.h"

#include <cstring>
#include <memory>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/system/system_error.hpp>

#include "qm/ErrorText.h"
#include "qm/log.h"

namespace {
// Room for about 2 MiB of queued datagrams: a discovery on a busy segment has
// every device answer at the same moment, and the kernel's default buffer
// (about 256 answers) overflows while the I/O thread works through them.
constexpr int receiveBufferBytes = 2 * 1024 * 1024;
}  // namespace

udp_server::udp_server(IReceive* receiver)
    : receiver(receiver), remoteEndpoint(boost::asio::ip::address_v4::any(), 0) {
  std::memset(buffer, 0, sizeof buffer);
}

void udp_server::init(boost::asio::io_context& ioContext) {
  // Held here until it is set up, so that a failing option does not leak it.
  auto created = std::make_unique<boost::asio::ip::udp::socket>(
      ioContext, boost::asio::ip::udp::endpoint(boost::asio::ip::address_v4::any(), port));
  created->set_option(boost::asio::socket_base::broadcast(true));
  // Best effort: a smaller buffer than asked for still works, only with less
  // room for bursts.
  boost::system::error_code ignored;
  created->set_option(boost::asio::socket_base::receive_buffer_size(receiveBufferBytes), ignored);
  socket = created.release();
  start_receive();
}

void udp_server::start_receive() {
  socket->async_receive_from(boost::asio::buffer(buffer, sizeof buffer), remoteEndpoint,
                             [this](const boost::system::error_code& error, std::size_t bytes) {
                               handle_receive(error, bytes);
                             });
}

void udp_server::handle_receive(const boost::system::error_code& error, unsigned long bytes) {
  if (error && error != boost::asio::error::message_size) return;
  unsigned int address = remoteEndpoint.address().to_v4().to_uint();
  receiver->receive(buffer, bytes, address);
  start_receive();
}

void udp_server::send(const unsigned char* data, unsigned long length) {
  auto copy = std::make_shared<std::vector<unsigned char>>(data, data + length);
  boost::asio::ip::udp::endpoint broadcast(boost::asio::ip::address_v4::broadcast(), port);
  socket->async_send_to(boost::asio::buffer(*copy), broadcast,
                        [this, copy](const boost::system::error_code& error, std::size_t bytes) {
                          handle_send(error, bytes);
                        });
}

void udp_server::handle_send(const boost::system::error_code&, unsigned long) {}

void udp_server::stop() {
  try {
    socket->close();
  } catch (const boost::system::system_error& e) {
    logd("Exception while closing udp_server socket: %s", errorText(e).c_str());
  }
  delete socket;
}
