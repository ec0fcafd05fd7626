#pragma once

#include <string>
#include <vector>

#include "qm/Entry.h"

namespace boost {
namespace asio {
class io_context;
}  // namespace asio
}  // namespace boost

/// Asks devices whose type is still unknown for their info over HTTP
/// (GET "/api/v1/info", port 80) and writes it into their records.
class HostnameGetter {
 public:
  /// Asks every record whose device_type is empty or exactly "unknown", all at
  /// once, and returns when every request has ended. Order and number of the
  /// records are kept; a device that does not answer keeps its record as it was.
  static void gather(std::vector<Entry>& entries);

  /// One request for one record on the calling thread, which it blocks until
  /// the exchange has ended; `ioc` must be run by other threads meanwhile.
  static void SendRequest(Entry& entry, boost::asio::io_context& ioc);

  /// Writes name, version and device_type from an info reply's body; a member
  /// the reply lacks (or a "data" that is not an object) is written as empty.
  /// Returns false, leaving the record unchanged, when the body is not JSON or
  /// one of the three members is an array or object, which have no text form.
  static bool applyInfo(const std::string& body, Entry& entry);

  /// The path every device serves its info on.
  static constexpr const char* kTarget = "/api/v1/info";
};
