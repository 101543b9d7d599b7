// zelctl verify: serialized state data checked the way a careful reader
// would, top list, switch blobs and their property lists, each problem
// reported with the byte offset where it sits.  Lists are checked inside
// out (their entries first, then their own checksum), so damage is reported
// at the innermost list that holds it.
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>

#include "data/property_list_internal.h"
#include "tools/zelctl/zelctl.h"

namespace zelctl {

namespace {

namespace data = zel::data;

constexpr uint64_t kBlock = 512;
constexpr uint32_t kMinList = data::kHeaderSize + data::kEndMarkerSize;

struct Entry {
  uint64_t offset;  // of the entry
  std::string name;
  uint64_t value;   // offset of the value
  uint32_t length;  // of the value
};

std::string Hex32(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%x", v);
  return buf;
}

class Verifier {
 public:
  explicit Verifier(const Bytes &d) : d_(d) {}

  std::optional<Problem> problem;

  // The list at [off, off + avail): header and entries; the checksum is
  // checked by Sum once what the list holds has been checked.
  bool List(uint64_t off, uint64_t avail, const std::string &what, std::vector<Entry> *out) {
    if (avail < kMinList) {
      return Bad(off, what + ": " + std::to_string(avail) + " bytes, a list takes at least 16");
    }
    const uint32_t size = U32(off);
    if (size < kMinList)
      return Bad(off,
                 what + ": size " + std::to_string(size) + " in its header, at least 16 expected");
    if (size > avail) {
      return Bad(off, what + ": its header says " + std::to_string(size) + " bytes, only " +
                          std::to_string(avail) + " are there");
    }
    uint16_t version = 0;
    std::memcpy(&version, &d_[off + 8], 2);
    if (version != 1)
      return Bad(off + 8, what + ": format version " + std::to_string(version) + ", 1 expected");
    uint64_t pos = off + data::kHeaderSize;
    uint64_t remaining = size - data::kHeaderSize;
    for (;;) {
      const uint32_t length = U32(pos);
      if (length == 0) break;
      if (length > remaining) {
        return Bad(pos, what + ": entry of " + std::to_string(length) + " bytes, only " +
                            std::to_string(remaining) + " left in the list");
      }
      if (length < data::kMinEntryLength || length % 4 != 0) {
        return Bad(pos, what + ": entry length " + std::to_string(length) +
                            ", a multiple of 4 of at least 144 expected");
      }
      const uint32_t dataLength = U32(pos + data::kDataLengthOffset);
      if (dataLength > length - data::kDataOffset) {
        return Bad(pos + data::kDataLengthOffset,
                   what + ": value of " + std::to_string(dataLength) + " bytes in an entry of " +
                       std::to_string(length));
      }
      const char *name = reinterpret_cast<const char *>(&d_[pos + data::kNameOffset]);
      out->push_back({pos, std::string(name, strnlen(name, data::kMaxNameLength)),
                      pos + data::kDataOffset, dataLength});
      remaining -= length;
      pos += length;
      if (remaining < data::kEndMarkerSize) return Bad(pos, what + ": no room for the end marker");
    }
    if (pos + data::kEndMarkerSize != off + size) {
      return Bad(pos, what + ": end marker at byte " + std::to_string(pos) +
                          ", the header's size puts it at byte " +
                          std::to_string(off + size - data::kEndMarkerSize));
    }
    return true;
  }

  bool Sum(uint64_t off, const std::string &what) {
    const uint32_t stored = U32(off + 4);
    const uint32_t computed = data::Checksum(&d_[off], U32(off));
    if (stored == computed) return true;
    return Bad(off + 4, what + ": checksum " + Hex32(stored) + " stored, " + Hex32(computed) +
                            " computed over the list at byte " + std::to_string(off));
  }

  // A list held in an entry's value, with its entries checked by `inner`.
  template <class Inner>
  bool Nested(const Entry &e, const std::string &what, Inner inner) {
    std::vector<Entry> entries;
    return List(e.value, e.length, what, &entries) && inner(entries) && Sum(e.value, what);
  }

  bool Switch(const Entry &sw) {
    const std::string what = "switch " + sw.name;
    return Nested(sw, what, [&](const std::vector<Entry> &fields) {
      std::set<std::string> seen;
      for (const Entry &f : fields) {
        seen.insert(f.name);
        if ((f.name == "switchVersion" || f.name == "maxPorts") && f.length < 4) {
          return Bad(f.offset, what + ": \"" + f.name + "\" of " + std::to_string(f.length) +
                                   " bytes, 4 expected");
        }
        if (f.name == "className" && std::memchr(&d_[f.value], 0, f.length) == nullptr) {
          return Bad(f.value, what + ": \"className\" without its terminating NUL");
        }
        if (f.name == "switchVersion" || f.name == "maxPorts" || f.name == "className") continue;
        const bool list = f.name == "globalPropList" || f.name == "hostPropList";
        const std::string inner = what + (list ? ", " + f.name : ", port " + f.name);
        if (!Nested(f, inner, [](const std::vector<Entry> &) { return true; })) return false;
      }
      for (const char *required :
           {"switchVersion", "className", "maxPorts", "globalPropList", "hostPropList"}) {
        if (seen.count(required) == 0)
          return Bad(sw.value, what + ": no \"" + std::string(required) + "\" entry");
      }
      return true;
    });
  }

  bool State(uint64_t avail) {
    std::vector<Entry> switches;
    if (!List(0, avail, "state", &switches)) return false;
    std::set<std::string> ids;
    for (const Entry &sw : switches) {
      if (!ids.insert(sw.name).second)
        return Bad(sw.offset, "switch " + sw.name + " appears twice");
      if (!Switch(sw)) return false;
    }
    return Sum(0, "state");
  }

 private:
  uint32_t U32(uint64_t off) const { return data::LoadU32(&d_[off]); }
  bool Bad(uint64_t off, std::string what) {
    problem = Problem{off, std::move(what)};
    return false;
  }
  const Bytes &d_;
};

}  // namespace

std::optional<Problem> VerifyState(const Bytes &d, bool file) {
  if (file && d.empty()) return Problem{0, "empty file"};
  if (file && d.size() % kBlock != 0) {
    return Problem{d.size(), "length " + std::to_string(d.size()) + " is not a multiple of 512"};
  }
  Verifier v(d);
  if (!v.State(d.size())) return v.problem;
  const uint32_t size = data::LoadU32(d.data());
  const uint64_t expected = file ? (size + kBlock - 1) / kBlock * kBlock : size;
  if (d.size() != expected) {
    return Problem{expected,
                   std::to_string(d.size() - expected) + " bytes after the state's " +
                       std::to_string(size) +
                       (file ? " bytes and their filler to the next multiple of 512" : " bytes")};
  }
  return std::nullopt;
}

namespace {

int Verify(const std::vector<std::string> &paths, bool blob) {
  int rc = kExitOk;
  for (const std::string &path : paths) {
    RequireFile(path, path);
    std::ifstream in(path, std::ios::binary);
    const Bytes d((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) Fail(path, "cannot be read");
    if (auto p = VerifyState(d, !blob)) {
      std::printf("%s: at byte %llu: %s\n", path.c_str(),
                  static_cast<unsigned long long>(p->offset), p->what.c_str());
      rc = kExitNo;
    } else {
      std::printf("%s: ok\n", path.c_str());
    }
  }
  return rc;
}

}  // namespace

void AddVerify(CLI::App &app) {
  auto *cmd = app.add_subcommand(
      "verify",
      "check state files: length, every list's checksum, markers and lengths, every "
      "switch blob and port list, the required switch entries; prints \"PATH: ok\" or "
      "the first problem with its byte offset (exit 1)");
  auto paths = std::make_shared<std::vector<std::string>>();
  auto blob = std::make_shared<bool>(false);
  cmd->add_option("PATH", *paths, "state files (bare blobs with --blob)")->required();
  cmd->add_flag("--blob", *blob, "the files are bare state blobs, without the file's padding");
  cmd->callback([=] { g_exit = Verify(*paths, *blob); });
}

}  // namespace zelctl
