#include "tools/jxcache/tool_test_support.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace jx::tool::testing {
namespace {

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace

RunResult RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  TempDir io;
  const std::string outPath = io.File("out"), errPath = io.File("err");
  const pid_t pid = fork();
  if (pid == 0) {
    if (!freopen(outPath.c_str(), "w", stdout) || !freopen(errPath.c_str(), "w", stderr))
      _exit(127);
    for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv{const_cast<char*>(JXCACHE_BINARY)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(JXCACHE_BINARY, argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  RunResult r;
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = Slurp(outPath);
  r.err = Slurp(errPath);
  return r;
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

namespace {

class XmlChecker {
 public:
  explicit XmlChecker(const std::string& t) : t_(t) {}

  bool Check(std::string* why) {
    std::vector<std::string> open;
    int roots = 0;
    while (p_ < t_.size()) {
      if (t_[p_] != '<') {
        if (!Text()) return Fail(why, "bad character data");
        continue;
      }
      if (Skip("<?", "?>") || Skip("<!--", "-->") || Skip("<!DOCTYPE", ">")) continue;
      if (t_.compare(p_, 2, "</") == 0) {
        p_ += 2;
        const std::string name = Name();
        if (open.empty() || open.back() != name) return Fail(why, "unexpected </" + name + ">");
        open.pop_back();
        SkipSpace();
        if (!Eat('>')) return Fail(why, "bad end tag");
        continue;
      }
      ++p_;
      const std::string name = Name();
      if (name.empty()) return Fail(why, "empty tag name");
      if (open.empty() && ++roots > 1) return Fail(why, "more than one root element");
      if (!Attributes()) return Fail(why, "bad attributes in <" + name + ">");
      if (t_.compare(p_, 2, "/>") == 0) {
        p_ += 2;
      } else if (Eat('>')) {
        open.push_back(name);
      } else {
        return Fail(why, "unterminated <" + name + ">");
      }
    }
    if (!open.empty()) return Fail(why, "<" + open.back() + "> never closed");
    if (roots != 1) return Fail(why, "no root element");
    return true;
  }

 private:
  bool Fail(std::string* why, const std::string& what) {
    *why = what + " at offset " + std::to_string(p_);
    return false;
  }
  bool Skip(const char* begin, const char* end) {
    if (t_.compare(p_, std::strlen(begin), begin) != 0) return false;
    const size_t e = t_.find(end, p_);
    p_ = e == std::string::npos ? t_.size() : e + std::strlen(end);
    return true;
  }
  bool Eat(char c) {
    if (p_ < t_.size() && t_[p_] == c) {
      ++p_;
      return true;
    }
    return false;
  }
  void SkipSpace() {
    while (p_ < t_.size() && std::isspace(static_cast<unsigned char>(t_[p_]))) ++p_;
  }
  std::string Name() {
    const size_t start = p_;
    while (p_ < t_.size() && (std::isalnum(static_cast<unsigned char>(t_[p_])) || t_[p_] == '-' ||
                              t_[p_] == '_' || t_[p_] == ':' || t_[p_] == '.'))
      ++p_;
    return t_.substr(start, p_ - start);
  }
  bool Entity() {
    static const char* kKnown[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"};
    for (const char* k : kKnown) {
      if (t_.compare(p_, std::strlen(k), k) == 0) {
        p_ += std::strlen(k);
        return true;
      }
    }
    return false;
  }
  bool Text() {
    while (p_ < t_.size() && t_[p_] != '<') {
      if (t_[p_] == '&') {
        if (!Entity()) return false;
      } else if (t_[p_] == '>') {
        ++p_;  // allowed in text, though we never write it
      } else {
        ++p_;
      }
    }
    return true;
  }
  bool Attributes() {
    std::vector<std::string> seen;
    while (true) {
      SkipSpace();
      if (p_ >= t_.size()) return false;
      if (t_[p_] == '>' || t_[p_] == '/') return true;
      const std::string name = Name();
      if (name.empty()) return false;
      for (const auto& s : seen)
        if (s == name) return false;
      seen.push_back(name);
      SkipSpace();
      if (!Eat('=')) return false;
      SkipSpace();
      if (p_ >= t_.size() || (t_[p_] != '"' && t_[p_] != '\'')) return false;
      const char q = t_[p_++];
      while (p_ < t_.size() && t_[p_] != q) {
        if (t_[p_] == '<') return false;
        if (t_[p_] == '&') {
          if (!Entity()) return false;
        } else {
          ++p_;
        }
      }
      if (!Eat(q)) return false;
    }
  }

  const std::string& t_;
  size_t p_ = 0;
};

}  // namespace

bool IsWellFormedXml(const std::string& text, std::string* why) {
  return XmlChecker(text).Check(why);
}

}  // namespace jx::tool::testing
