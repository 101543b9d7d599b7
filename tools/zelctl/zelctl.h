// zelctl: shared declarations of the subcommand families.  A state from any
// source is decoded once into the plain model below (every property value
// through the library's own save conversion) and every subcommand works on
// that model.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace zelctl {

using Bytes = std::vector<uint8_t>;
using Json = nlohmann::ordered_json;

// Exit codes.
inline constexpr int kExitOk = 0;
inline constexpr int kExitNo = 1;     // a negative answer
inline constexpr int kExitInput = 2;  // a usage or input error

// An input error: "zelctl: WHAT: WHY" on standard error, exit 2.
struct Failure {
  std::string what, why;
};
[[noreturn]] void Fail(const std::string &what, const std::string &why);

// Set by --verbose: the library's diagnostics are let through.
extern bool g_verbose;
// The exit code of the subcommand that ran.
extern int g_exit;

// --- sources ---

struct Source {
  enum Kind { kFile, kBlob, kStore, kDesired, kKernel } kind;
  std::string name;  // as given
  std::string path;  // file or database path ("" for the default store)
};
Source ParseSource(const std::string &name);
// A readable regular file, or an input error naming what it is instead.
void RequireFile(const std::string &what, const std::string &path);
// The state blob of a source, cut to the size in its header once verified;
// exits with an input error when it cannot be read or does not verify.
Bytes ReadState(const Source &source);
// The database path a store source uses (the library's default when none given).
std::string StorePath(const Source &source);
// Points the library at a store source's database; fails when it is missing
// or not a file (a reading command must not create it).
void UseStore(const Source &source, bool mustExist);

// Runs a library call with its standard-error lines held back (unless
// --verbose); returns the last line it printed there.
std::string Quietly(const std::function<void()> &call);

// --- the decoded state ---

struct Prop {
  std::string name;
  uint32_t type = 0;
  uint32_t length = 0;
  int kind = -1;      // the conversion kind of its own row; -1 for the catch-all row
  std::string path;   // that row's path
  Json value;         // what the save conversion stores, or null
  std::string hex;    // the bytes, when there is no value
  std::string error;  // why the conversion refused the bytes
};
struct Port {
  std::string id;
  std::vector<Prop> props;
};
struct Switch {
  std::string id, className, release, alias;
  uint32_t version = 0, maxPorts = 0;
  std::vector<Prop> global, host;
  std::vector<Port> ports;
};
struct State {
  Source source;
  std::vector<Switch> switches;
};

// Reads, verifies and decodes a source.
State LoadState(const std::string &name);
State DecodeState(const Source &source, const Bytes &blob);

// --- verification ---

struct Problem {
  uint64_t offset;
  std::string what;
};
// The first problem of serialized state data; `file` adds the state file's
// length and padding rules.
std::optional<Problem> VerifyState(const Bytes &data, bool file);

// --- output ---

// A property's value as "path = value" lines (or one "hex ..." line).
std::vector<std::string> ValueLines(const Prop &prop, bool cutHex);
Json PropJson(const Prop &prop);
void PrintJson(const Json &doc);
std::string StatusText(uint32_t status);
std::string StoreStatusText(uint32_t status);

// --- subcommand families ---

void AddShow(CLI::App &app);
void AddVerify(CLI::App &app);
void AddDiff(CLI::App &app);
void AddMigrate(CLI::App &app);
void AddStore(CLI::App &app);
void AddKernel(CLI::App &app);
// Options shared by show and the kernel's show and state.
struct ShowOptions {
  std::string source, switchId, portId;
  bool json = false;
};
void AddShowOptions(CLI::App *cmd, ShowOptions &o, bool withSource);
// show as the show subcommands print it; returns the exit code.
int Show(const State &state, const std::string &switchId, const std::string &portId, bool json);

}  // namespace zelctl
