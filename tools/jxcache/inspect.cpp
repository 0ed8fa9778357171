#include "tools/jxcache/inspect.h"

#include <CLI/CLI.hpp>

namespace jx::tool {
void AddInspectCommand(CLI::App& app, int*) { app.add_subcommand("inspect", "todo"); }
}  // namespace jx::tool
