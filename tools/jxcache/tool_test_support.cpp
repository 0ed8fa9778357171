#include "tools/jxcache/tool_test_support.h"

#include <expat.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "disk/cache_file_name.h"
#include "jxcache/host/byte_stream.h"
#include "jxcache/items/checksummed_stream.h"
#include "tools/jxcache/frame_payload.h"

namespace jx::tool::testing {

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

namespace {

// A started run of the binary: its process and where its output goes.
struct Started {
  pid_t pid = -1;
  std::unique_ptr<TempDir> io;
};

Started StartTool(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  Started s;
  s.io = std::make_unique<TempDir>();
  const std::string outPath = s.io->File("out"), errPath = s.io->File("err");
  s.pid = fork();
  if (s.pid == 0) {
    if (!freopen(outPath.c_str(), "w", stdout) || !freopen(errPath.c_str(), "w", stderr))
      _exit(127);
    for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv{const_cast<char*>(JXCACHE_BINARY)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(JXCACHE_BINARY, argv.data());
    _exit(127);
  }
  return s;
}

RunResult WaitFor(const Started& s) {
  int status = 0;
  struct rusage usage {};
  wait4(s.pid, &status, 0, &usage);
  RunResult r;
  r.maxRssKiB = usage.ru_maxrss;
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = ReadText(s.io->File("out"));
  r.err = ReadText(s.io->File("err"));
  return r;
}

}  // namespace

RunResult RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  return WaitFor(StartTool(args, env));
}

nlohmann::json RunToolJson(const std::vector<std::string>& args,
                           const std::vector<std::string>& env) {
  const RunResult r = RunTool(args, env);
  if (r.exitCode != 0)
    throw std::runtime_error("jxcache exited with " + std::to_string(r.exitCode) + ": " + r.err);
  return r.Json();
}

std::vector<RunResult> RunToolsAtOnce(const std::vector<std::vector<std::string>>& runs,
                                      std::chrono::seconds watchdog) {
  std::vector<Started> started;
  for (const auto& args : runs) started.push_back(StartTool(args, {}));
  std::vector<bool> killed(started.size(), false);
  const auto deadline = std::chrono::steady_clock::now() + watchdog;
  for (size_t i = 0; i < started.size() && watchdog.count() > 0; ++i) {
    siginfo_t info{};  // WNOWAIT: WaitFor still reaps the child and its resource usage
    while (waitid(P_PID, started[i].pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(started[i].pid, SIGKILL);
        killed[i] = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  std::vector<RunResult> results;
  for (size_t i = 0; i < started.size(); ++i) {
    results.push_back(WaitFor(started[i]));
    results.back().killed = killed[i];
  }
  return results;
}

std::string FrameFileName(uint32_t width, uint32_t height, uint32_t frame, uint32_t version) {
  JX_StuffData::Header header;
  FramePayload(width, height, frame).GetHeader(header);
  return jx::disk::MakeCacheFileName(FramePayload::KeyOf(width, height, frame),
                                     FramePayload::kMatchname, version, header.data(),
                                     header.size());
}

std::vector<uint8_t> FrameFileBytes(uint32_t width, uint32_t height, uint32_t frame) {
  struct FileStream : zelcore::filesupport::VectorOByteStream, jx::ChecksumIdentity {
    using ChecksumIdentity::ChecksumIdentity;
  } out(jx::disk::CacheFileChecksumSeed(FrameFileName(width, height, frame)));
  FramePayload::Render(width, height, frame)->Write(out);
  return out.Bytes();
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
  const std::string s = ReadText(path);
  return {s.begin(), s.end()};
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) std::abort();
}

TempDir::TempDir() {
  std::string pattern = std::filesystem::temp_directory_path().string() + "/jxcache_tool.XXXXXX";
  if (!mkdtemp(pattern.data())) std::abort();
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

bool IsWellFormedXml(const std::string& text, std::string* why) {
  XML_Parser parser = XML_ParserCreate("UTF-8");
  if (!parser) std::abort();
  const bool ok = XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) != 0;
  if (!ok) {
    *why = std::string(XML_ErrorString(XML_GetErrorCode(parser))) + " at line " +
           std::to_string(XML_GetCurrentLineNumber(parser));
  }
  XML_ParserFree(parser);
  return ok;
}

}  // namespace jx::tool::testing
