// Feeds one datagram to the simulated device's mDNS query parser and, when it
// is a query, answers it as a device would. The legacy answer repeats the
// questions: read back, they must be the ones parsed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "device/MdnsMessage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto query = parseMdnsQuery(data, size);
  if (!query) return 0;
  if (query->questions.size() != static_cast<size_t>(data[4] << 8 | data[5])) std::abort();
  for (const MdnsQuestion& q : query->questions) {
    size_t wire = 1;
    for (const std::string& label : q.name) {
      if (label.empty() || label.size() > 63) std::abort();
      wire += 1 + label.size();
    }
    if (wire > 255) std::abort();
  }
  const MdnsIdentity identity{"Fuzz-0a0b0c", "vd-0a0b0c", 0x0A000002, 80, {"uuid=0a0b0c"}};
  const MdnsRecords records = mdnsAnswerTo(identity, *query);
  if (records.answers & records.additionals) std::abort();
  encodeMdnsAnswer(identity, records);
  auto reply = encodeMdnsAnswer(identity, records, &*query);
  if (reply.empty()) return 0;
  if (reply[0] != data[0] || reply[1] != data[1]) std::abort();
  reply[2] &= 0x7F;  // read back as a query
  const auto again = parseMdnsQuery(reply.data(), reply.size());
  if (!again || again->questions.size() != query->questions.size()) std::abort();
  for (size_t i = 0; i < again->questions.size(); ++i) {
    const MdnsQuestion &a = again->questions[i], &b = query->questions[i];
    if (a.name != b.name || a.type != b.type || a.qclass != b.qclass || a.unicastResponse)
      std::abort();
  }
  return 0;
}
