// Where and how a run happened, for the report and the JSON: the version, when, on which host and
// with which command line. A report read weeks later is worth little without them.
#pragma once

#include <string>
#include <vector>

namespace jx::tool {

struct RunInfo {
  std::string version;                   // the tool's, which is the library's it is built with
  std::string startedAt;                 // UTC, ISO 8601: "2024-05-01T09:30:00Z"
  std::vector<std::string> commandLine;  // the arguments as the process got them
  std::string host;                      // the machine's name
};

// The present process's: the arguments are read from /proc/self/cmdline, so that no subcommand
// needs to hand them down; where that cannot be read the command line is empty.
RunInfo CollectRunInfo();

// The arguments as one line a shell would split back into the same ones.
std::string ShellCommandLine(const std::vector<std::string>& args);

}  // namespace jx::tool
