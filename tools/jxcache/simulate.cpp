#include "tools/jxcache/simulate.h"

#include <CLI/CLI.hpp>

namespace jx::tool {
void AddSimulateCommand(CLI::App& app, int*) { app.add_subcommand("simulate", "todo"); }
}  // namespace jx::tool
