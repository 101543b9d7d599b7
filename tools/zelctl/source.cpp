// Sources of a state (state file, bare blob, configuration store, kernel
// module) and their decoding into the model of zelctl.h.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "configstore/inspect.h"
#include "host/configstore_client.h"
#include "host/feature_flags.h"
#include "sim/state_view.h"
#include "tools/zelctl/zelctl.h"
#include "zel/configstore.h"
#include "zel/file.h"
#include "zel/kernel.h"

namespace zelctl {

namespace cs = zel::cfgstore;
namespace persist = zel::persist;

namespace {

constexpr uint32_t kTableGlobal = 0, kTableHost = 1, kTablePort = 2;
constexpr const char *kAliasName = "com.zorlan.common.alias";
constexpr const char *kVersionName = "com.zorlan.common.version";

Bytes Copy(const void *p, uint64_t n) {
  const auto *b = static_cast<const uint8_t *>(p);
  return Bytes(b, b + n);
}

// The state file through the library's reader, with the store switched off
// so that the file itself is read.
Bytes ReadStateFile(const Source &s) {
  RequireFile(s.name, s.path);
  zel::host::SetConfigStoreFeatures(false, false);
  void *blob = nullptr;
  int32_t length = 0;
  uint32_t offset = 0;
  const ReturnStatus status = ZELFile_Read(s.path.c_str(), &blob, &length, &offset);
  if (status == STATUS_IO_ERROR) {
    struct stat st {};
    stat(s.path.c_str(), &st);
    Fail(s.name,
         "not a state file: length " + std::to_string(st.st_size) + " is not a multiple of 512");
  }
  if (status == STATUS_FILE_EMPTY) Fail(s.name, "not a state file: empty");
  if (status != STATUS_OK) Fail(s.name, "cannot be read: " + StatusText(status));
  Bytes out = Copy(blob, static_cast<uint64_t>(length));
  std::free(static_cast<uint8_t *>(blob) - offset);
  return out;
}

Bytes ReadBlob(const Source &s) {
  RequireFile(s.name, s.path);
  std::ifstream in(s.path, std::ios::binary);
  Bytes out((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) Fail(s.name, "cannot be read");
  return out;
}

Bytes ReadStore(const Source &s) {
  UseStore(s, true);
  cs::UseReadOnly(true);
  void *blob = nullptr;
  uint32_t length = 0;
  const uint32_t status =
      ZELState_LoadFromConfigStoreAsBuf(&blob, &length, s.kind == Source::kDesired);
  cs::UseReadOnly(false);
  if (status != 0) Fail(s.name, "cannot be loaded: " + StoreStatusText(status));
  Bytes out = Copy(blob, length);
  std::free(blob);
  return out;
}

Bytes ReadKernel(const Source &s) {
  void *blob = nullptr;
  uint32_t length = 0;
  ReturnStatus status = STATUS_OK;
  const std::string said =
      Quietly([&] { status = ZELPYX_PersistentStateGetWithFile(&blob, &length, nullptr); });
  if (status != STATUS_OK) {
    Fail(s.name, "persistent state: " + (said.empty() ? "" : said + ": ") + StatusText(status));
  }
  Bytes out = Copy(blob, length);
  std::free(blob);
  return out;
}

// An instance id the conversion drew at random (a version-4 UUID).
bool RandomId(const Json &key) {
  if (!key.is_string()) return false;
  const std::string k = key;
  if (k.size() != 36 || k[14] != '4') return false;
  for (size_t i = 0; i < k.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? k[i] != '-' : !std::isxdigit(static_cast<unsigned char>(k[i]))) return false;
  }
  return true;
}

// Stored JSON without its type tags and without instance ids drawn at
// random, which differ on every conversion and mean nothing (such instances
// are shown by position).
Json Untagged(Json v) {
  if (v.is_object()) {
    v.erase("@types");
    if (v.contains("key") && RandomId(v["key"])) v.erase("key");
    for (auto &[k, x] : v.items()) x = Untagged(x);
  } else if (v.is_array()) {
    for (auto &x : v) x = Untagged(x);
  }
  return v;
}

std::string Hex(const Bytes &b) {
  static const char *digits = "0123456789abcdef";
  std::string out;
  for (uint8_t c : b) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

// One property through its row: the save conversion's object, or its bytes.
Prop DecodeProp(const zel::sim::PropView &p, uint32_t table, const Switch &sw) {
  Prop out{p.name, p.type, static_cast<uint32_t>(p.value.size()), -1, "", nullptr, "", ""};
  const PropToConfigEntry *row = persist::FindRow(table, p.name.c_str());
  const bool catchAll = row == nullptr || row->kind == 22 || row->kind == 33;
  if (!catchAll) {
    out.kind = static_cast<int>(row->kind);
    for (uint32_t i = 0; i < row->depth; ++i)
      out.path += (i ? "/" : "") + std::string(row->path[i]);
    std::string json;
    const uint32_t status =
        persist::DescribeProperty(table, sw.className.c_str(), sw.version, p.name.c_str(),
                                  p.value.data(), static_cast<uint32_t>(p.value.size()), &json);
    if (status == 0) {
      out.value = Untagged(Json::parse(json));
      if (table == kTablePort) out.value.erase("key");
      return out;
    }
    out.error =
        "does not convert (kind " + std::to_string(row->kind) + "): " + StoreStatusText(status);
  }
  out.hex = Hex(p.value);
  return out;
}

std::vector<Prop> DecodeProps(const zel::sim::PropsView &props, uint32_t table, const Switch &sw) {
  std::vector<Prop> out;
  for (const auto &p : props) out.push_back(DecodeProp(p, table, sw));
  return out;
}

// The release text of a version code, by the version conversion itself.
std::string Release(const Switch &sw) {
  uint8_t code[4];
  std::memcpy(code, &sw.version, 4);
  std::string json;
  if (persist::DescribeProperty(kTableGlobal, sw.className.c_str(), sw.version, kVersionName, code,
                                4, &json) != 0) {
    return "unknown";
  }
  const Json v = Json::parse(json);
  std::string text = v["product"].value("version", "unknown");
  if (v.value("qor_enabled", false)) text += " qor_enabled";
  return text;
}

}  // namespace

void RequireFile(const std::string &what, const std::string &path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) Fail(what, std::strerror(errno));
  if (S_ISDIR(st.st_mode)) Fail(what, "is a directory");
  if (!S_ISREG(st.st_mode)) Fail(what, "not a regular file");
  if (access(path.c_str(), R_OK) != 0) Fail(what, std::strerror(errno));
}

Source ParseSource(const std::string &name) {
  const size_t colon = name.find(':');
  const std::string prefix = name.substr(0, colon);
  const std::string rest = colon == std::string::npos ? "" : name.substr(colon + 1);
  Source s{Source::kFile, name, rest};
  if (prefix == "file" || prefix == "blob") {
    s.kind = prefix == "file" ? Source::kFile : Source::kBlob;
    if (rest.empty()) Fail(name, "no path after \"" + prefix + ":\"");
  } else if (prefix == "store" || prefix == "desired") {
    s.kind = prefix == "store" ? Source::kStore : Source::kDesired;
  } else if (name == "kernel") {
    s.kind = Source::kKernel;
  } else {
    Fail(name,
         "unknown source (expected file:PATH, blob:PATH, store[:DBPATH], "
         "desired[:DBPATH] or kernel)");
  }
  return s;
}

std::string StorePath(const Source &s) {
  if (!s.path.empty()) return s.path;
  const char *env = std::getenv(cs::kPathEnv);
  return env != nullptr && env[0] != '\0' ? env : cs::kDefaultPath;
}

void UseStore(const Source &s, bool mustExist) {
  const std::string path = StorePath(s);
  struct stat st {};
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) Fail(s.name, path + " is a directory");
  if (mustExist) RequireFile(s.name, path);
  setenv(cs::kPathEnv, path.c_str(), 1);
}

Bytes ReadState(const Source &s) {
  Bytes blob;
  switch (s.kind) {
    case Source::kFile:
      blob = ReadStateFile(s);
      break;
    case Source::kBlob:
      blob = ReadBlob(s);
      break;
    case Source::kStore:
    case Source::kDesired:
      blob = ReadStore(s);
      break;
    case Source::kKernel:
      blob = ReadKernel(s);
      break;
  }
  if (auto problem = VerifyState(blob, s.kind == Source::kFile)) {
    Fail(s.name, std::string(s.kind == Source::kFile ? "not a state file" : "not a state") +
                     ": at byte " + std::to_string(problem->offset) + ": " + problem->what);
  }
  uint32_t size = 0;
  std::memcpy(&size, blob.data(), 4);
  blob.resize(size);  // the file's filler is no part of the state
  return blob;
}

State DecodeState(const Source &source, const Bytes &blob) {
  std::vector<zel::sim::SwitchView> view;
  if (ReturnStatus s = zel::sim::ViewState(blob.data(), static_cast<uint32_t>(blob.size()), &view);
      s != STATUS_OK) {
    Fail(source.name, "does not decode: " + StatusText(s));
  }
  State state{source, {}};
  for (const auto &v : view) {
    Switch sw;
    sw.id = v.id;
    sw.className = v.className;
    sw.version = v.version;
    sw.maxPorts = v.maxPorts;
    sw.release = Release(sw);
    sw.global = DecodeProps(v.global, kTableGlobal, sw);
    sw.host = DecodeProps(v.host, kTableHost, sw);
    for (const auto &p : v.ports) sw.ports.push_back({p.id, DecodeProps(p.props, kTablePort, sw)});
    for (const Prop &p : sw.global) {
      if (p.name == kAliasName && p.value.contains("name")) sw.alias = p.value["name"];
    }
    state.switches.push_back(std::move(sw));
  }
  return state;
}

State LoadState(const std::string &name) {
  const Source source = ParseSource(name);
  return DecodeState(source, ReadState(source));
}

std::string Quietly(const std::function<void()> &call) {
  if (g_verbose) {
    call();
    return "";
  }
  std::fflush(stderr);
  FILE *sink = std::tmpfile();
  const int saved = dup(STDERR_FILENO);
  if (sink == nullptr || saved < 0) {
    call();
    return "";
  }
  dup2(fileno(sink), STDERR_FILENO);
  call();
  std::fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  std::string text, line;
  std::rewind(sink);
  char buf[256];
  while (std::fgets(buf, sizeof buf, sink) != nullptr) text += buf;
  std::fclose(sink);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  const size_t nl = text.rfind('\n');
  return nl == std::string::npos ? text : text.substr(nl + 1);
}

}  // namespace zelctl
