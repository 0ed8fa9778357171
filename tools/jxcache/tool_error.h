// The two ways a jxcache subcommand fails. A UsageError is the user's argument (exit code 2, one
// line); a ToolError is something the run met (a missing trace, an unwritable report: exit 1).
#pragma once

#include <stdexcept>
#include <string>

namespace jx::tool {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace jx::tool
