#include "tools/jxcache/run_info.h"

#include <unistd.h>

#include <ctime>
#include <fstream>
#include <iterator>

#include "jxcache/common/version.h"

namespace jx::tool {

RunInfo CollectRunInfo() {
  RunInfo info;
  info.version = JX_GetLibraryVersionString();
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  char when[32] = "";
  if (gmtime_r(&now, &utc)) std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
  info.startedAt = when;
  char host[256] = "";
  if (::gethostname(host, sizeof host - 1) == 0) info.host = host;
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // NUL-terminated arguments, one after the other.
  for (size_t start = 0; start < all.size();) {
    size_t end = all.find('\0', start);
    if (end == std::string::npos) end = all.size();
    info.commandLine.push_back(all.substr(start, end - start));
    start = end + 1;
  }
  return info;
}

std::string ShellCommandLine(const std::vector<std::string>& args) {
  std::string line;
  for (const std::string& a : args) {
    if (!line.empty()) line += ' ';
    const bool plain = !a.empty() && a.find_first_not_of(
                                         "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMN"
                                         "OPQRSTUVWXYZ0123456789-_./=:,+@%") == std::string::npos;
    if (plain) {
      line += a;
      continue;
    }
    line += '\'';
    for (char c : a) {
      if (c == '\'')
        line += "'\\''";
      else
        line += c;
    }
    line += '\'';
  }
  return line;
}

}  // namespace jx::tool
