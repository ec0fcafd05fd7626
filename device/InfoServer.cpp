#include "device/InfoServer.h"

#include <chrono>
#include <memory>
#include <string>

#include <json/json.h>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "device/NamedBind.h"
#include "http/HostnameGetter.h"

namespace beast = boost::beast;
namespace http = beast::http;

namespace {

// Written by hand to keep the keys in the order name, version, device_type.
std::string infoJson(const DeviceConfig& config) {
  return "{\"data\":{\"name\":" + Json::valueToQuotedString(config.name.c_str()) +
         ",\"version\":" + Json::valueToQuotedString(config.softwareVersion.c_str()) +
         ",\"device_type\":" + Json::valueToQuotedString(deviceTypeOf(config).c_str()) + "}}";
}

// One connection: read a request, wait the configured delay, answer; again
// while the client keeps the connection open.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(boost::asio::ip::tcp::socket socket, const DeviceConfig& config)
      : stream(std::move(socket)), timer(stream.get_executor()), config(config) {}

  void start() { readNext(); }

 private:
  void readNext() {
    request = {};
    stream.expires_after(std::chrono::seconds(30));
    http::async_read(
        stream, buffer, request,
        [self = shared_from_this()](beast::error_code error, std::size_t) { self->onRead(error); });
  }

  void onRead(beast::error_code error) {
    if (error) return close();
    response = answer();
    if (config.httpDelayMs == 0) return write();
    stream.expires_never();
    timer.expires_after(std::chrono::milliseconds(config.httpDelayMs));
    timer.async_wait([self = shared_from_this()](beast::error_code waitError) {
      if (!waitError) self->write();
    });
  }

  http::response<http::string_body> answer() const {
    http::response<http::string_body> reply;
    reply.version(request.version());
    reply.keep_alive(request.keep_alive());
    reply.set(http::field::server, "varnock-device");
    if (request.method() == http::verb::get && request.target() == HostnameGetter::kTarget) {
      reply.result(config.httpStatus);
      reply.set(http::field::content_type, config.httpContentType);
      reply.body() = config.httpBodySet ? config.httpBody : infoJson(config);
    } else {
      reply.result(http::status::not_found);
      reply.set(http::field::content_type, "text/plain");
      reply.body() = "not found\n";
    }
    reply.prepare_payload();
    return reply;
  }

  void write() {
    stream.expires_after(std::chrono::seconds(30));
    http::async_write(stream, response,
                      [self = shared_from_this()](beast::error_code error, std::size_t) {
                        if (error) return;
                        if (!self->response.keep_alive()) return self->close();
                        self->readNext();
                      });
  }

  void close() {
    beast::error_code ignored;
    stream.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
  }

  beast::tcp_stream stream;
  boost::asio::steady_timer timer;
  beast::flat_buffer buffer;
  http::request<http::string_body> request;
  http::response<http::string_body> response;
  const DeviceConfig& config;
};

}  // namespace

InfoServer::InfoServer(boost::asio::io_context& context, const DeviceConfig& config)
    : context(context), config(config), acceptor(context) {
  boost::asio::ip::tcp::endpoint local(boost::asio::ip::address_v4(config.address),
                                       config.httpPort);
  acceptor.open(local.protocol());
  acceptor.set_option(boost::asio::socket_base::reuse_address(true));
  bindNamed(acceptor, local);
  acceptor.listen();
}

void InfoServer::start() { acceptNext(); }

void InfoServer::stop() {
  boost::system::error_code ignored;
  acceptor.close(ignored);
}

void InfoServer::acceptNext() {
  acceptor.async_accept(
      context, [this](boost::system::error_code error, boost::asio::ip::tcp::socket socket) {
        if (error == boost::asio::error::operation_aborted) return;
        if (!error) std::make_shared<Session>(std::move(socket), config)->start();
        acceptNext();
      });
}
