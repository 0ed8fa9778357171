// `jxcache simulate`: a compositing session driven through the library as a host drives it.
#pragma once

namespace CLI {
class App;
}

namespace jx::tool {
void AddSimulateCommand(CLI::App& app, int* exitCode);
}  // namespace jx::tool
