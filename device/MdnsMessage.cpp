#include "device/MdnsMessage.h"

#include <algorithm>
#include <bitset>

namespace {

constexpr std::uint16_t kTypeA = 1, kTypePtr = 12, kTypeTxt = 16, kTypeSrv = 33, kTypeAny = 255;
constexpr std::uint16_t kClassIn = 1, kClassAny = 255, kTopBit = 0x8000;
constexpr std::uint32_t kHostTtl = 120, kServiceTtl = 4500, kLegacyTtl = 10;

const DnsName kService{"_http", "_tcp", "local"}, kLocal{"local"};

std::uint16_t read16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

bool sameLabel(const std::string& x, const std::string& y) {
  return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin(), [](char c, char d) {
           auto lower = [](char v) { return v >= 'A' && v <= 'Z' ? char(v + 32) : v; };
           return lower(c) == lower(d);
         });
}

/// Whether `name` is `first` (when given) followed by `rest`, ignoring case;
/// compared in place, as a flood of queries makes this the hot path.
bool sameName(const DnsName& name, const DnsName& rest, const std::string* first = nullptr) {
  const std::size_t skip = first ? 1 : 0;
  return name.size() == rest.size() + skip && (!first || sameLabel(name[0], *first)) &&
         std::equal(rest.begin(), rest.end(), name.begin() + skip, sameLabel);
}

// Reads the name at *offset; on success *offset is past it (past its first
// pointer when it has one).
bool readName(const std::uint8_t* data, std::size_t size, std::size_t* offset, DnsName& name) {
  std::size_t at = *offset, wire = 1, end = 0;
  std::size_t floor = at;  // a pointer must point before every label read so far
  while (true) {
    if (at >= size) return false;
    const std::uint8_t length = data[at];
    if (length == 0) {
      *offset = end ? end : at + 1;
      return true;
    }
    if ((length & 0xC0) == 0xC0) {
      if (size - at < 2) return false;
      const std::size_t target = read16(data + at) & 0x3FFF;
      if (target >= floor) return false;
      if (!end) end = at + 2;
      floor = target;
      at = target;
      continue;
    }
    if (length > 63 || size - at - 1 < length) return false;
    wire += 1 + length;
    if (wire > 255) return false;
    name.emplace_back(reinterpret_cast<const char*>(data + at + 1), length);
    at += 1 + length;
  }
}

class Writer {
 public:
  void u16(std::uint16_t v) {
    bytes.push_back(static_cast<std::uint8_t>(v >> 8));
    bytes.push_back(static_cast<std::uint8_t>(v));
  }
  void u32(std::uint32_t v) {
    u16(static_cast<std::uint16_t>(v >> 16));
    u16(static_cast<std::uint16_t>(v));
  }
  void name(const DnsName& labels) {
    for (const std::string& label : labels) text(label.substr(0, 63));
    bytes.push_back(0);
  }
  void text(const std::string& s) {
    bytes.push_back(static_cast<std::uint8_t>(s.size()));
    bytes.insert(bytes.end(), s.begin(), s.end());
  }
  /// Starts a record's data; `done` writes its length.
  std::size_t begin() {
    u16(0);
    return bytes.size();
  }
  void done(std::size_t start) {
    const std::size_t length = bytes.size() - start;
    bytes[start - 2] = static_cast<std::uint8_t>(length >> 8);
    bytes[start - 1] = static_cast<std::uint8_t>(length);
  }
  std::vector<std::uint8_t> bytes;
};

DnsName instanceName(const MdnsIdentity& identity) {
  DnsName name{identity.instance};
  name.insert(name.end(), kService.begin(), kService.end());
  return name;
}

void writeRecord(Writer& out, const MdnsIdentity& identity, unsigned record, bool legacy,
                 bool goodbye) {
  const DnsName instance = instanceName(identity), host{identity.host, "local"};
  const std::uint16_t flush = legacy ? 0 : kTopBit;
  auto ttl = [&](std::uint32_t normal) { return goodbye ? 0 : legacy ? kLegacyTtl : normal; };
  // Owner, type, class and TTL; the data's length follows, filled in by done().
  auto head = [&](const DnsName& owner, std::uint16_t type, std::uint16_t rrclass,
                  std::uint32_t normalTtl) {
    out.name(owner);
    out.u16(type);
    out.u16(rrclass);
    out.u32(ttl(normalTtl));
    return out.begin();
  };
  std::size_t start = 0;
  switch (record) {
    case kMdnsPtr:
      start = head(kService, kTypePtr, kClassIn, kServiceTtl);  // shared: never flushed
      out.name(instance);
      break;
    case kMdnsSrv:
      start = head(instance, kTypeSrv, kClassIn | flush, kHostTtl);
      out.u16(0);
      out.u16(0);
      out.u16(identity.port);
      out.name(host);
      break;
    case kMdnsTxt:
      start = head(instance, kTypeTxt, kClassIn | flush, kServiceTtl);
      for (const std::string& entry : identity.txt) out.text(entry.substr(0, 255));
      if (identity.txt.empty()) out.text("");
      break;
    case kMdnsA:
      start = head(host, kTypeA, kClassIn | flush, kHostTtl);
      out.u32(identity.address);
      break;
  }
  out.done(start);
}

std::size_t count(unsigned records) { return std::bitset<4>(records).count(); }

std::vector<std::uint8_t> message(const MdnsIdentity& identity, std::uint16_t id,
                                  const std::vector<MdnsQuestion>& questions, MdnsRecords records,
                                  bool legacy, bool goodbye) {
  Writer out;
  out.u16(id);
  out.u16(0x8400);  // response, authoritative
  out.u16(static_cast<std::uint16_t>(questions.size()));
  out.u16(static_cast<std::uint16_t>(count(records.answers)));
  out.u16(0);
  out.u16(static_cast<std::uint16_t>(count(records.additionals)));
  for (const MdnsQuestion& q : questions) {
    out.name(q.name);
    out.u16(q.type);
    out.u16(q.qclass);
  }
  for (unsigned section : {records.answers, records.additionals})
    for (unsigned r : {kMdnsPtr, kMdnsSrv, kMdnsTxt, kMdnsA})
      if (section & r) writeRecord(out, identity, r, legacy, goodbye);
  return out.bytes;
}

}  // namespace

std::optional<MdnsQuery> parseMdnsQuery(const std::uint8_t* data, std::size_t size) {
  if (size < 12) return std::nullopt;
  const std::uint16_t flags = read16(data + 2), count = read16(data + 4);
  if ((flags & kTopBit) || (flags >> 11 & 0xF) != 0 || count == 0) return std::nullopt;
  MdnsQuery query;
  query.id = read16(data);
  std::size_t offset = 12;
  for (std::uint16_t i = 0; i < count; ++i) {
    MdnsQuestion q;
    if (!readName(data, size, &offset, q.name) || size - offset < 4) return std::nullopt;
    q.type = read16(data + offset);
    q.unicastResponse = read16(data + offset + 2) & kTopBit;
    q.qclass = read16(data + offset + 2) & ~kTopBit;
    offset += 4;
    query.questions.push_back(std::move(q));
  }
  return query;
}

bool asksSharedRecords(const MdnsQuery& query) {
  for (const MdnsQuestion& q : query.questions)
    if (sameName(q.name, kService) && (q.type == kTypePtr || q.type == kTypeAny)) return true;
  return false;
}

MdnsRecords mdnsAnswerTo(const MdnsIdentity& identity, const MdnsQuery& query) {
  MdnsRecords records;
  for (const MdnsQuestion& q : query.questions) {
    if (q.qclass != kClassIn && q.qclass != kClassAny) continue;
    const bool any = q.type == kTypeAny;
    if (sameName(q.name, kService) && (any || q.type == kTypePtr)) {
      records.answers |= kMdnsPtr;
      records.additionals |= kMdnsSrv | kMdnsTxt | kMdnsA;
    }
    if (sameName(q.name, kService, &identity.instance)) {
      if (any || q.type == kTypeSrv) records.answers |= kMdnsSrv;
      if (any || q.type == kTypeTxt) records.answers |= kMdnsTxt;
      records.additionals |= kMdnsA;
    }
    if (sameName(q.name, kLocal, &identity.host) && (any || q.type == kTypeA))
      records.answers |= kMdnsA;
  }
  if (!records.answers) return {};
  records.additionals &= ~records.answers;
  return records;
}

std::vector<std::uint8_t> encodeMdnsAnswer(const MdnsIdentity& identity, MdnsRecords records,
                                           const MdnsQuery* legacy) {
  records.answers &= kMdnsAll;
  records.additionals &= kMdnsAll & ~records.answers;
  if (!records.answers) return {};
  return message(identity, legacy ? legacy->id : 0,
                 legacy ? legacy->questions : std::vector<MdnsQuestion>(), records,
                 legacy != nullptr, false);
}

std::vector<std::uint8_t> encodeMdnsAnnouncement(const MdnsIdentity& identity, bool goodbye) {
  return message(identity, 0, {}, {kMdnsAll, 0}, false, goodbye);
}
