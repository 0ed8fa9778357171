// Test helpers: run the built jxcache binary and capture what it says, temporary folders.
#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace jx::tool::testing {

struct RunResult {
  int exitCode = -1;
  std::string out, err;
  // Peak resident memory, which counts what the child inherited of this process: keep it small.
  long maxRssKiB = 0;
  bool killed = false;  // by RunToolsAtOnce's watchdog
  nlohmann::json Json() const { return nlohmann::json::parse(out); }
};

// Runs the jxcache binary with `args` (no shell) and `env` ("NAME=value") added.
RunResult RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env = {});
// RunTool for a run that must succeed: the JSON it printed, or an exception with its stderr.
nlohmann::json RunToolJson(const std::vector<std::string>& args,
                           const std::vector<std::string>& env = {});
// Runs the binary once per argument list, all at the same time, and waits for every one; past a
// `watchdog` of more than zero, kills those still running.
std::vector<RunResult> RunToolsAtOnce(const std::vector<std::vector<std::string>>& runs,
                                      std::chrono::seconds watchdog = {});

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

// The name (version 1 unless told) and contents of the disk cache file `simulate` writes; the
// contents' checksum is bound to the version-1 name.
std::string FrameFileName(uint32_t width, uint32_t height, uint32_t frame, uint32_t version = 1);
std::vector<uint8_t> FrameFileBytes(uint32_t width, uint32_t height, uint32_t frame);
std::vector<uint8_t> ReadBytes(const std::string& path);
std::string ReadText(const std::string& path);
// How many times `what` occurs in `text`.
size_t Count(const std::string& text, const std::string& what);
void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes);

// Whether `text` is well-formed XML, as expat says. Sets *why on failure.
bool IsWellFormedXml(const std::string& text, std::string* why);

}  // namespace jx::tool::testing
