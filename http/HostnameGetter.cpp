#include "http/HostnameGetter.h"

#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <exception>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "qm/ErrorText.h"
#include "qm/log.h"

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Response = http::response<http::string_body>;

constexpr unsigned short kPort = 80;
constexpr std::chrono::seconds kDeadline{5};
constexpr std::chrono::milliseconds kPollStep{10};
constexpr int kRunners = 4;
const char* const kInfoKeys[] = {"name", "version", "device_type"};

// The completion of one asynchronous step, handed from its handler on a runner
// thread to the request thread that polls for it. The release/acquire pair on
// the flag publishes the error code and everything the operation wrote.
class StepDone {
 public:
  void complete(beast::error_code ec) {
    ec_ = ec;
    done_.store(true, std::memory_order_release);
  }
  beast::error_code wait() const {
    while (!done_.load(std::memory_order_acquire)) std::this_thread::sleep_for(kPollStep);
    return ec_;
  }

 private:
  beast::error_code ec_;
  std::atomic<bool> done_{false};
};

// One TCP stream on a strand of its own. The stream is touched only on that
// strand - each step's deadline and start, the stream's own timer and
// completion handlers, and the release of the last reference - so the request
// thread, which only waits, never races with a runner thread over it.
class Exchange {
 public:
  explicit Exchange(net::io_context& ioc)
      : strand_(net::make_strand(ioc)), stream_(std::make_shared<beast::tcp_stream>(strand_)) {}
  ~Exchange() {
    net::post(strand_, [stream = std::move(stream_)]() mutable { stream.reset(); });
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// Arms the deadline, runs `start(stream, handler)` on the strand and blocks
  /// until the step has completed; returns its error code.
  template <class Start>
  beast::error_code step(Start start) {
    StepDone done;
    net::post(strand_, [stream = stream_, &done, &start] {
      stream->expires_after(kDeadline);
      start(*stream, [stream, &done](beast::error_code ec, auto&&...) { done.complete(ec); });
    });
    return done.wait();
  }

 private:
  net::strand<net::io_context::executor_type> strand_;
  std::shared_ptr<beast::tcp_stream> stream_;
};

// Never reports a network failure by exception: it logs and returns a default
// response (status 200, empty body). A host text that is not an address throws.
Response request(net::io_context& ioc, http::verb method, const std::string& host,
                 const std::string& target) {
  Exchange exchange(ioc);
  const tcp::endpoint endpoint(net::ip::make_address(host), kPort);

  beast::error_code ec = exchange.step([&endpoint](beast::tcp_stream& stream, auto handler) {
    stream.async_connect(endpoint, std::move(handler));
  });
  if (ec) {
    logd("Connect err %s%s: %s", host.c_str(), target.c_str(), ec.message().c_str());
    return Response{};
  }

  http::request<http::string_body> req{method, target, 11};
  req.set(http::field::host, host);
  req.set(http::field::connection, "close");
  req.prepare_payload();
  ec = exchange.step([&req](beast::tcp_stream& stream, auto handler) {
    http::async_write(stream, req, std::move(handler));
  });
  if (ec) {
    logd("Write err %s%s: %s", host.c_str(), target.c_str(), ec.message().c_str());
    return Response{};
  }

  beast::flat_buffer buffer;
  Response res;
  ec = exchange.step([&buffer, &res](beast::tcp_stream& stream, auto handler) {
    http::async_read(stream, buffer, res, std::move(handler));
  });
  if (ec) {
    logd("Read err %s%s: %s", host.c_str(), target.c_str(), ec.message().c_str());
    return Response{};
  }

  // A reply that does not declare a JSON body anywhere counts as not found.
  const bool declaresJson = std::any_of(res.begin(), res.end(), [](const auto& field) {
    return field.value().find("json") != beast::string_view::npos;
  });
  if (!declaresJson) {
    res = Response{};
    res.result(http::status::not_found);
  }
  logd("Response %s%s: %d, %s", host.c_str(), target.c_str(), static_cast<int>(res.result_int()),
       res.body().c_str());
  return res;
}

void runUntilStopped(net::io_context& ioc) {
  do {
    try {
      ioc.run();
    } catch (...) {
      ioc.restart();
    }
  } while (!ioc.stopped());
}

}  // namespace

bool HostnameGetter::applyInfo(const std::string& body, Entry& entry) {
  try {
    Json::Value parsed;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(body.data(), body.data() + body.size(), &parsed, nullptr)) return false;
    // Members are read through const access only: it never turns a null into an object.
    const Json::Value& root = parsed;
    // A root or "data" that is neither an object nor null has no members, and
    // reading them would throw: it counts as a reply without "data", whose
    // missing members are written as empty strings.
    Json::Value data = root.isObject() ? root["data"] : Json::Value();
    if (data.isObject()) {
      Json::Value reduced(Json::objectValue);
      for (const char* key : kInfoKeys) {
        // A named path: a reference resolved from a temporary one trips GCC 14's dangling check.
        const Json::Path path(key);
        const Json::Value& value = path.resolve(data);
        if (!value.isNull()) reduced[key] = value;
      }
      data = std::move(reduced);
    } else {
      data = Json::Value();
    }
    const Json::Value& fields = data;
    std::string text[3];
    for (int i = 0; i < 3; ++i) {
      const Json::Value& value = fields[kInfoKeys[i]];
      // Arrays and objects have no text form; numbers and booleans do.
      if (value.isArray() || value.isObject()) return false;
      text[i] = value.asString();
    }
    entry.name = std::move(text[0]);
    entry.version = std::move(text[1]);
    entry.device_type = std::move(text[2]);
    return true;
  } catch (const std::exception&) {
    // jsoncpp throws for input nested deeper than its stack limit.
    return false;
  }
}

void HostnameGetter::SendRequest(Entry& entry, net::io_context& ioc) {
  const std::string target = kTarget;
  logd("Requesting %s%s", entry.ip.c_str(), target.c_str());
  Response res;
  try {
    res = request(ioc, http::verb::get, entry.ip, target);
  } catch (const std::exception& e) {
    logd("Error when opening socket to %s: %s", entry.ip.c_str(), errorText(e).c_str());
  }
  if (res.result_int() != 200) return;
  applyInfo(res.body(), entry);
}

void HostnameGetter::gather(std::vector<Entry>& entries) {
  net::io_context ioc;
  auto work = net::make_work_guard(ioc);

  std::vector<std::thread> runners;
  runners.reserve(kRunners);
  for (int i = 0; i < kRunners; ++i) {
    try {
      runners.emplace_back([&ioc] { runUntilStopped(ioc); });
    } catch (const std::exception&) {
      break;
    }
  }

  std::vector<std::thread> requests;
  for (Entry& entry : entries) {
    if (!entry.device_type.empty() && entry.device_type != "unknown") continue;
    // Without a runner no step would ever complete, so nothing is asked then; a
    // thread that cannot be started leaves its record as discovery gave it.
    try {
      if (runners.empty())
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                "no I/O thread");
      requests.emplace_back([&entry, &ioc] { SendRequest(entry, ioc); });
    } catch (const std::exception& e) {
      logd("Error when opening socket to %s: %s", entry.ip.c_str(), errorText(e).c_str());
    }
  }
  for (std::thread& t : requests) t.join();

  ioc.stop();
  for (std::thread& t : runners) t.join();
}
