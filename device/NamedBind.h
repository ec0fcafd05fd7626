#pragma once

#include <string>
#include <type_traits>

#include <boost/asio/ip/udp.hpp>
#include <boost/system/system_error.hpp>

/// Binds `socket` (or acceptor) to `local`; a failure throws a system_error
/// whose text reads "bind ADDRESS:PORT/udp: reason" (or /tcp).
template <typename Socket>
void bindNamed(Socket& socket, const typename Socket::endpoint_type& local) {
  boost::system::error_code error;
  socket.bind(local, error);
  if (!error) return;
  const bool udp = std::is_same<typename Socket::protocol_type, boost::asio::ip::udp>::value;
  throw boost::system::system_error(error, "bind " + local.address().to_string() + ":" +
                                               std::to_string(local.port()) +
                                               (udp ? "/udp" : "/tcp"));
}
