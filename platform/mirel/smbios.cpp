#include "platform/mirel/smbios.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/mirel/zirn.h"

namespace {

// Offsets inside a type 42 structure.
constexpr size_t kInterfaceType = 4;
constexpr size_t kInterfaceDataLength = 5;
constexpr size_t kInterfaceData = 6;

// Offsets inside the Redfish-over-IP protocol data, and its fixed size.
constexpr size_t kRfUuid = 0;
constexpr size_t kRfHostAssignment = 16;
constexpr size_t kRfHostFormat = 17;
constexpr size_t kRfHostAddress = 18;
constexpr size_t kRfHostMask = 34;
constexpr size_t kRfDiscovery = 50;
constexpr size_t kRfFormat = 51;
constexpr size_t kRfAddress = 52;
constexpr size_t kRfMask = 68;
constexpr size_t kRfPort = 84;
constexpr size_t kRfVlan = 86;
constexpr size_t kRfHostnameLength = 90;
constexpr size_t kRfFixedSize = 91;

uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t Le32(const uint8_t* p) {
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

void Note(SMBIOS_Problem* problem, const char* what, size_t offset) {
  if (problem != nullptr) *problem = SMBIOS_Problem{what, offset};
}

int Fail(SMBIOS_Problem* problem, int status, const char* what, size_t offset) {
  Note(problem, what, offset);
  return status;
}

enum class Verdict { NotRedfish, Found, Malformed };

void DecodeRecord(const uint8_t* d, size_t size, SMBIOS_RedfishOverIp* out) {
  std::memcpy(out->serviceUuid, d + kRfUuid, 16);
  out->hostIpAssignmentType = d[kRfHostAssignment];
  out->hostIpAddressFormat = d[kRfHostFormat];
  std::memcpy(out->hostIpAddress, d + kRfHostAddress, 16);
  std::memcpy(out->hostIpMask, d + kRfHostMask, 16);
  out->discoveryType = d[kRfDiscovery];
  out->addressFormat = d[kRfFormat];
  std::memcpy(out->address, d + kRfAddress, 16);
  std::memcpy(out->mask, d + kRfMask, 16);
  out->port = Le16(d + kRfPort);
  out->vlan = Le32(d + kRfVlan);
  const size_t nameLength = d[kRfHostnameLength];
  out->hostnameFits = kRfFixedSize + nameLength <= size;
  const size_t copied = out->hostnameFits ? nameLength : 0;
  std::memcpy(out->hostname, d + kRfFixedSize, copied);
  out->hostname[copied] = '\0';
}

// Looks inside one type 42 structure (formatted area s[0..length)). Every
// protocol record header is checked before any record is trusted, so a
// structure whose count or lengths disagree with its size is rejected whole.
Verdict ExamineHostInterface(const uint8_t* s, size_t length, size_t tableOffset,
                             SMBIOS_RedfishOverIp* out, SMBIOS_Problem* problem) {
  if (length <= kInterfaceType || s[kInterfaceType] != SMBIOS_INTERFACE_NETWORK) {
    return Verdict::NotRedfish;
  }
  if (length <= kInterfaceDataLength) {
    Note(problem, "network host interface too short for its data length field", tableOffset);
    return Verdict::Malformed;
  }
  const size_t dataLength = s[kInterfaceDataLength];
  size_t pos = kInterfaceData + dataLength;  // the protocol record count
  if (pos >= length) {
    Note(problem, "host interface data runs past its structure",
         tableOffset + kInterfaceDataLength);
    return Verdict::Malformed;
  }
  const size_t count = s[pos++];
  const uint8_t* redfish = nullptr;
  size_t redfishSize = 0;
  for (size_t i = 0; i < count; ++i) {
    if (length - pos < 2) {
      Note(problem, "protocol record count exceeds what the structure holds", tableOffset + pos);
      return Verdict::Malformed;
    }
    const uint8_t type = s[pos];
    const size_t size = s[pos + 1];
    if (size > length - pos - 2) {
      Note(problem, "protocol record runs past its structure", tableOffset + pos);
      return Verdict::Malformed;
    }
    if (type == SMBIOS_PROTOCOL_REDFISH_OVER_IP && redfish == nullptr) {
      if (size < kRfFixedSize) {
        Note(problem, "Redfish-over-IP record shorter than 91 bytes", tableOffset + pos);
        return Verdict::Malformed;
      }
      redfish = s + pos + 2;
      redfishSize = size;
    }
    pos += 2 + size;
  }
  if (redfish == nullptr) return Verdict::NotRedfish;
  if (out != nullptr) {
    *out = SMBIOS_RedfishOverIp{};
    out->handle = Le16(s + 2);
    out->structureOffset = tableOffset;
    out->deviceType = dataLength > 0 ? s[kInterfaceData] : 0;
    DecodeRecord(redfish, redfishSize, out);
  }
  return Verdict::Found;
}

bool ChecksumIsZero(const uint8_t* p, size_t n) {
  uint8_t sum = 0;
  for (size_t i = 0; i < n; ++i) sum = static_cast<uint8_t>(sum + p[i]);
  return sum == 0;
}

// Reads at most limit bytes of a file. False when it cannot be opened or read.
bool ReadCapped(const char* path, size_t limit, std::vector<uint8_t>* out) {
  out->clear();
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = true;
  while (out->size() < limit) {
    const size_t want = std::min<size_t>(limit - out->size(), size_t{64} * 1024);
    const size_t at = out->size();
    out->resize(at + want);
    const ssize_t n = ::read(fd, out->data() + at, want);
    if (n < 0 && errno == EINTR) {
      out->resize(at);
      continue;
    }
    if (n <= 0) {
      out->resize(at);
      ok = n == 0;
      break;
    }
    out->resize(at + static_cast<size_t>(n));
  }
  ::close(fd);
  return ok;
}

// Walks the table's structures up to the end-of-table marker (or until fewer
// than a header's 4 bytes remain) and hands each type 42 structure's formatted
// area to visit(structure, length, offset), which returns false to stop.
// Returns NUC_OK, NUC_ERR_NO_TABLE or NUC_ERR_CORRUPT_TABLE; offset ends where
// the walk stopped.
template <typename Visit>
int WalkHostInterfaces(const uint8_t* table, size_t length, SMBIOS_Problem* problem, size_t& offset,
                       Visit visit) {
  offset = 0;
  if (table == nullptr || length == 0) {
    return Fail(problem, NUC_ERR_NO_TABLE, "the SMBIOS table is empty", 0);
  }
  while (length - offset >= 4) {
    const uint8_t* s = table + offset;
    const uint8_t type = s[0];
    const size_t formatted = s[1];
    if (formatted < 4) {
      return Fail(problem, NUC_ERR_CORRUPT_TABLE, "structure length below its 4-byte header",
                  offset);
    }
    if (type == SMBIOS_TYPE_END_OF_TABLE) break;
    if (formatted > length - offset) {
      return Fail(problem, NUC_ERR_CORRUPT_TABLE, "structure runs past the end of the table",
                  offset);
    }
    // The string set ends at the first pair of NULs after the formatted area.
    size_t end = offset + formatted;
    while (end + 1 < length && (table[end] != 0 || table[end + 1] != 0)) ++end;
    if (end + 1 >= length) {
      return Fail(problem, NUC_ERR_CORRUPT_TABLE, "structure strings run past the end of the table",
                  offset);
    }
    if (type == SMBIOS_TYPE_HOST_INTERFACE && !visit(s, formatted, offset)) return NUC_OK;
    offset = end + 2;
  }
  return NUC_OK;
}

}  // namespace

int SMBIOS_FindRedfishOverIp(const uint8_t* table, size_t length, SMBIOS_RedfishOverIp* record,
                             SMBIOS_Problem* problem) {
  int found = NUC_ERR_NO_ENTRY;
  size_t end = 0;
  const int walked = WalkHostInterfaces(
      table, length, problem, end, [&](const uint8_t* s, size_t formatted, size_t offset) {
        SMBIOS_Problem inner{nullptr, offset};
        switch (ExamineHostInterface(s, formatted, offset, record, &inner)) {
          case Verdict::Found:
            found = NUC_OK;
            return false;
          case Verdict::Malformed:
            found = Fail(problem, NUC_ERR_CORRUPT_TABLE, inner.what, inner.offset);
            return false;
          case Verdict::NotRedfish:
            break;
        }
        return true;
      });
  if (walked != NUC_OK) return walked;
  if (found == NUC_ERR_NO_ENTRY) {
    Note(problem, "no network host interface with a Redfish-over-IP record", end);
  }
  return found;
}

int SMBIOS_ListHostInterfaces(const uint8_t* table, size_t length, SMBIOS_HostInterface* out,
                              size_t max, size_t* count, SMBIOS_Problem* problem) {
  size_t n = 0;
  size_t end = 0;
  int malformed = NUC_OK;
  const int walked = WalkHostInterfaces(
      table, length, problem, end, [&](const uint8_t* s, size_t formatted, size_t offset) {
        SMBIOS_HostInterface entry{};
        entry.handle = Le16(s + 2);
        entry.interfaceType = formatted > kInterfaceType ? s[kInterfaceType] : 0;
        SMBIOS_Problem inner{nullptr, offset};
        const Verdict verdict = ExamineHostInterface(s, formatted, offset, &entry.redfish, &inner);
        if (verdict == Verdict::Malformed) {
          malformed = Fail(problem, NUC_ERR_CORRUPT_TABLE, inner.what, inner.offset);
          return false;
        }
        entry.hasRedfish = verdict == Verdict::Found;
        if (out != nullptr && n < max) out[n] = entry;
        ++n;
        return true;
      });
  if (count != nullptr) *count = n;
  return walked != NUC_OK ? walked : malformed;
}

size_t SMBIOS_TableLengthFromEntryPoint(const uint8_t* ep, size_t length) {
  if (ep == nullptr) return 0;
  if (length >= 0x18 && std::memcmp(ep, "_SM3_", 5) == 0) {
    const size_t epLength = ep[6];
    if (epLength < 0x18 || epLength > length || !ChecksumIsZero(ep, epLength)) return 0;
    return Le32(ep + 0x0C);
  }
  if (length >= 0x1F && std::memcmp(ep, "_SM_", 4) == 0) {
    // Some firmware announces 0x1E for the 0x1F-byte layout.
    const size_t epLength = ep[5];
    if (epLength < 0x1E || epLength > length || !ChecksumIsZero(ep, epLength)) return 0;
    if (std::memcmp(ep + 0x10, "_DMI_", 5) != 0 || !ChecksumIsZero(ep + 0x10, 15)) return 0;
    return Le16(ep + 0x16);
  }
  if (length >= 15 && std::memcmp(ep, "_DMI_", 5) == 0) {
    if (!ChecksumIsZero(ep, 15)) return 0;
    return Le16(ep + 0x06);
  }
  return 0;
}

bool SMBIOS_ReadTable(const char* entryPointPath, const char* tablePath,
                      std::vector<uint8_t>& bytes) {
  size_t limit = SMBIOS_MAX_TABLE_BYTES;
  // Without a usable entry point the file's own length has to do.
  if (entryPointPath != nullptr && ReadCapped(entryPointPath, 64, &bytes)) {
    const size_t announced = SMBIOS_TableLengthFromEntryPoint(bytes.data(), bytes.size());
    if (announced > 0 && announced < limit) limit = announced;
  }
  return tablePath != nullptr && ReadCapped(tablePath, limit, &bytes);
}

int SMBIOS_ReadRedfishOverIp(const char* entryPointPath, const char* tablePath,
                             SMBIOS_RedfishOverIp* record, SMBIOS_Problem* problem) {
  std::vector<uint8_t> bytes;
  if (!SMBIOS_ReadTable(entryPointPath, tablePath, bytes)) {
    return Fail(problem, NUC_ERR_NO_TABLE, "cannot read the SMBIOS table file", 0);
  }
  return SMBIOS_FindRedfishOverIp(bytes.data(), bytes.size(), record, problem);
}
