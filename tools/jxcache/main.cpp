// jxcache: the command-line face of the cache library. `simulate` drives a compositing session
// through the library, `inspect` describes a disk cache folder, `stats` and `clear` count and
// empty one, `replay` sizes the cache on an access trace. Exit codes: 0 success, 1 the run
// failed, 2 bad arguments.
#include <CLI/CLI.hpp>

#include <malloc.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string_view>

#include "jxcache/common/version.h"
#include "tools/jxcache/cache_folder.h"
#include "tools/jxcache/inspect.h"
#include "tools/jxcache/replay.h"
#include "tools/jxcache/simulate.h"
#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/tool_error.h"

namespace {

// The first line of a message: every failure is reported on exactly one line.
std::string OneLine(std::string text) {
  const size_t nl = text.find('\n');
  if (nl != std::string::npos) text.resize(nl);
  return text;
}

std::vector<const CLI::App*> Subcommands(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

std::string SubcommandList(const CLI::App& app) {
  std::string names;
  for (const CLI::App* sub : Subcommands(app)) {
    if (!names.empty()) names += ", ";
    names += sub->get_name();
  }
  return names;
}

// The first argument that is not an option names the subcommand: the tool itself takes no
// positional arguments. CLI11 would report an unknown one as a missing subcommand, which sends
// the user looking in the wrong place.
std::string UnknownSubcommand(const CLI::App& app, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.starts_with("-")) continue;
    for (const CLI::App* sub : Subcommands(app)) {
      if (sub->check_name(std::string(arg))) return "";
    }
    return std::string(arg);
  }
  return "";
}

// Whether everything printed reached standard output. A full disk or a closed file loses it,
// and a run whose result is lost has not succeeded.
bool OutputWritten() {
  std::cout.flush();
  return std::cout.good() && std::fflush(stdout) == 0 && !std::ferror(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace jx::tool;
  // A frame is megabytes: by default each one would be a fresh mapping of its own, faulted in
  // page by page as it is filled and unmapped when freed. A player keeps its frame buffers;
  // so does this one, by letting the heap reuse freed frames. On a virtual machine whose page
  // faults are costly this more than halves a read back from disk.
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  CLI::App app("jxcache: drive, inspect and size the jxcache frame cache", "jxcache");
  app.require_subcommand(1);
  app.fallthrough(false);
  int exitCode = kExitOk;
  AddSimulateCommand(app, &exitCode);
  AddInspectCommand(app, &exitCode);
  AddReplayCommand(app, &exitCode);
  AddStatsCommand(app, &exitCode);
  AddClearCommand(app, &exitCode);
  app.footer(std::string(kSizeHelp) +
             "\nExit codes: 0 success, 1 the run failed, 2 bad arguments. Each subcommand takes "
             "--help.");
  app.set_version_flag("-V,--version", std::string("jxcache ") + JXCACHE_TOOL_VERSION +
                                           "\nlibrary " + JX_GetLibraryVersionString());
  try {
    const std::string unknown = UnknownSubcommand(app, argc, argv);
    if (!unknown.empty()) {
      throw UsageError("unknown subcommand '" + unknown + "' (subcommands: " + SubcommandList(app) +
                       "; see jxcache --help)");
    }
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::RequiredError& e) {
    if (app.get_subcommands().empty()) {
      std::cerr << "jxcache: a subcommand is required (" << SubcommandList(app)
                << "; see jxcache --help)\n";
    } else {
      std::cerr << "jxcache: " << OneLine(e.what()) << " (see jxcache --help)\n";
    }
    return kExitUsage;
  } catch (const CLI::ParseError& e) {
    std::cerr << "jxcache: " << OneLine(e.what()) << " (see jxcache --help)\n";
    return kExitUsage;
  } catch (const UsageError& e) {
    std::cerr << "jxcache: " << OneLine(e.what()) << '\n';
    return kExitUsage;
  } catch (const ToolError& e) {
    std::cerr << "jxcache: " << OneLine(e.what()) << '\n';
    return kExitFailure;
  } catch (const std::exception& e) {
    std::cerr << "jxcache: failed: " << OneLine(e.what()) << '\n';
    return kExitFailure;
  } catch (int code) {
    std::cerr << "jxcache: the cache library failed with code " << code << '\n';
    return kExitFailure;
  }
  if (!OutputWritten()) {
    std::cerr << "jxcache: cannot write the output: " << std::strerror(errno) << '\n';
    return kExitFailure;
  }
  return exitCode;
}
