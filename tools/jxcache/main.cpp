// jxcache: the command-line face of the cache library. `simulate` drives a compositing session
// through the library, `inspect` describes a disk cache folder, `replay` sizes the cache on an
// access trace. Exit codes: 0 success, 1 the run failed, 2 bad arguments.
#include <CLI/CLI.hpp>

#include <iostream>

#include "tools/jxcache/inspect.h"
#include "tools/jxcache/replay.h"
#include "tools/jxcache/simulate.h"
#include "tools/jxcache/tool_error.h"

namespace {

// The first line of a message: every failure is reported on exactly one line.
std::string OneLine(std::string text) {
  const size_t nl = text.find('\n');
  if (nl != std::string::npos) text.resize(nl);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace jx::tool;
  CLI::App app("jxcache: drive, inspect and size the jxcache frame cache", "jxcache");
  app.require_subcommand(1);
  app.fallthrough(false);
  int exitCode = kExitOk;
  AddSimulateCommand(app, &exitCode);
  AddInspectCommand(app, &exitCode);
  AddReplayCommand(app, &exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
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
  return exitCode;
}
