// Test helpers: run the built jxcache binary and capture what it says, temporary folders.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace jx::tool::testing {

struct RunResult {
  int exitCode = -1;
  std::string out, err;
  // The run's peak resident memory as the kernel counts it for the child, which includes what
  // the child held as a copy of this process before it became jxcache: keep this process small
  // when measuring.
  long maxRssKiB = 0;
  nlohmann::json Json() const { return nlohmann::json::parse(out); }
};

// Runs the jxcache binary with `args` (each passed as one argument, no shell), with the
// variables of `env` ("NAME=value") added to its environment.
RunResult RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env = {});
// Runs the binary once per argument list, all at the same time, and waits for every one.
std::vector<RunResult> RunToolsAtOnce(const std::vector<std::vector<std::string>>& runs);

// A fresh folder under the temporary directory, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The disk cache file `simulate` writes for a frame: its name (the library's version 1 unless
// told) and what it holds.
std::string FrameFileName(uint32_t width, uint32_t height, uint32_t frame, uint32_t version = 1);
std::vector<uint8_t> FrameFileBytes(uint32_t width, uint32_t height, uint32_t frame);
std::vector<uint8_t> ReadBytes(const std::string& path);
void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes);

// Whether `text` is well-formed XML, as expat says. Sets *why on failure.
bool IsWellFormedXml(const std::string& text, std::string* why);

}  // namespace jx::tool::testing
