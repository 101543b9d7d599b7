// zelctl: looks inside, checks, compares and moves the switch state kept by
// libzel: state files, bare state blobs, the configuration store and the
// kernel module.  Results go to standard output, errors to standard error as
// "zelctl: WHAT: WHY"; exit 0 on success, 1 for a negative answer, 2 for a
// usage or input error.
#include <cstdio>

#include "tools/zelctl/zelctl.h"
#include "zel/configstore.h"
#include "zel/data.h"
#include "zel/state.h"

namespace zelctl {

bool g_verbose = false;
int g_exit = kExitOk;

void Fail(const std::string &what, const std::string &why) { throw Failure{what, why}; }

}  // namespace zelctl

int main(int argc, char **argv) {
  using namespace zelctl;
  CLI::App app{
      "zelctl: look inside, check, compare and move the distributed switch state.\n"
      "SOURCE is file:PATH (a state file), blob:PATH (a bare state blob), "
      "store[:DBPATH] (the configuration store's current layer), desired[:DBPATH] "
      "(its user-configured layer) or kernel (the kernel module's persistable state)."};
  app.name("zelctl");
  app.footer(
      "Exit status: 0 success; 1 a negative answer (verify found a problem, diff found "
      "differences, store check found objects a load fails on); 2 a usage or input error, "
      "reported on standard error as \"zelctl: WHAT: WHY\".  --help-all shows every "
      "subcommand's options.");
  app.set_version_flag("--version", "zelctl 0.1");
  app.set_help_all_flag("--help-all", "print the help of every subcommand and exit");
  app.add_flag("--verbose", g_verbose, "let the library's own diagnostics through");
  app.require_subcommand(1);
  AddShow(app);
  AddVerify(app);
  AddDiff(app);
  AddMigrate(app);
  AddStore(app);
  AddKernel(app);
  app.parse_complete_callback([] {
    // The library's levels: quiet unless asked.
    zelconfigstore_debug = g_verbose ? 10 : -1;
    zeldata_debug = g_verbose ? 0 : -1;
    zel_debug = g_verbose ? 0 : -1;
  });
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp &e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion &e) {
    return app.exit(e);
  } catch (const CLI::ParseError &e) {
    std::fprintf(stderr, "zelctl: usage: %s (see zelctl --help)\n", e.what());
    return kExitInput;
  } catch (const Failure &f) {
    std::fflush(stdout);
    std::fprintf(stderr, "zelctl: %s: %s\n", f.what.c_str(), f.why.c_str());
    return kExitInput;
  } catch (const std::exception &e) {
    std::fflush(stdout);
    std::fprintf(stderr, "zelctl: %s\n", e.what());
    return kExitInput;
  }
  return g_exit;
}
