// `jxcache inspect DIR`: what a disk cache folder holds, told from the file names alone.
#pragma once

namespace CLI {
class App;
}

namespace jx::tool {
void AddInspectCommand(CLI::App& app, int* exitCode);
}  // namespace jx::tool
