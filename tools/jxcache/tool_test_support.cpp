#include "tools/jxcache/tool_test_support.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "disk/cache_file_name.h"
#include "jxcache/host/byte_stream.h"
#include "tools/jxcache/frame_payload.h"

#ifdef JX_HAVE_EXPAT
#include <expat.h>
#endif

namespace jx::tool::testing {
namespace {

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace

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
  r.out = Slurp(s.io->File("out"));
  r.err = Slurp(s.io->File("err"));
  return r;
}

}  // namespace

RunResult RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  return WaitFor(StartTool(args, env));
}

std::vector<RunResult> RunToolsAtOnce(const std::vector<std::vector<std::string>>& runs) {
  std::vector<Started> started;
  for (const auto& args : runs) started.push_back(StartTool(args, {}));
  std::vector<RunResult> results;
  for (const auto& s : started) results.push_back(WaitFor(s));
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
  zelcore::filesupport::VectorOByteStream out;
  FramePayload::Render(width, height, frame)->Write(out);
  return out.Bytes();
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
  const std::string s = Slurp(path);
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

namespace {

// A small well-formedness checker: one root element with only white space, comments, processing
// instructions and a DOCTYPE before it and only white space, comments and processing
// instructions after it; tags nested and closed in order; attributes quoted and not repeated;
// entity references the five predefined ones or numeric.
class XmlChecker {
 public:
  explicit XmlChecker(const std::string& t) : t_(t) {}

  bool Check(std::string* why) {
    std::vector<std::string> open;
    bool rootSeen = false;
    while (p_ < t_.size()) {
      if (t_[p_] != '<') {
        const size_t start = p_;
        if (!Text()) return Fail(why, "bad character data");
        if (open.empty() && !IsSpace(start, p_)) return Fail(why, "text outside the root element");
        continue;
      }
      if (At("<?")) {
        if (!Skip("?>")) return Fail(why, "unterminated processing instruction");
        continue;
      }
      if (At("<!--")) {
        if (!Skip("-->")) return Fail(why, "unterminated comment");
        continue;
      }
      if (At("<![CDATA[")) {
        if (open.empty()) return Fail(why, "CDATA outside the root element");
        if (!Skip("]]>")) return Fail(why, "unterminated CDATA section");
        continue;
      }
      if (At("<!DOCTYPE")) {
        if (rootSeen || !open.empty()) return Fail(why, "DOCTYPE after the root element began");
        if (!Skip(">")) return Fail(why, "unterminated DOCTYPE");
        continue;
      }
      if (At("</")) {
        p_ += 2;
        const std::string name = Name();
        if (open.empty() || open.back() != name) {
          return Fail(why, "</" + name + "> does not close " +
                               (open.empty() ? std::string("anything") : "<" + open.back() + ">"));
        }
        open.pop_back();
        SkipSpace();
        if (!Eat('>')) return Fail(why, "bad end tag");
        continue;
      }
      ++p_;
      const std::string name = Name();
      if (name.empty()) return Fail(why, "empty tag name");
      if (open.empty()) {
        if (rootSeen) return Fail(why, "more than one root element");
        rootSeen = true;
      }
      if (!Attributes()) return Fail(why, "bad attributes in <" + name + ">");
      if (At("/>")) {
        p_ += 2;
      } else if (Eat('>')) {
        open.push_back(name);
      } else {
        return Fail(why, "unterminated <" + name + ">");
      }
    }
    if (!open.empty()) return Fail(why, "<" + open.back() + "> never closed");
    if (!rootSeen) return Fail(why, "no root element");
    return true;
  }

 private:
  bool Fail(std::string* why, const std::string& what) {
    *why = what + " at offset " + std::to_string(p_);
    return false;
  }
  bool At(const char* s) const { return t_.compare(p_, std::strlen(s), s) == 0; }
  // Moves past the next `end`; false when there is none.
  bool Skip(const char* end) {
    const size_t e = t_.find(end, p_ + 1);
    if (e == std::string::npos) return false;
    p_ = e + std::strlen(end);
    return true;
  }
  bool Eat(char c) {
    if (p_ < t_.size() && t_[p_] == c) {
      ++p_;
      return true;
    }
    return false;
  }
  bool IsSpace(size_t from, size_t to) const {
    for (size_t i = from; i < to; ++i)
      if (!std::isspace(static_cast<unsigned char>(t_[i]))) return false;
    return true;
  }
  void SkipSpace() {
    while (p_ < t_.size() && std::isspace(static_cast<unsigned char>(t_[p_]))) ++p_;
  }
  std::string Name() {
    const size_t start = p_;
    while (p_ < t_.size() && (std::isalnum(static_cast<unsigned char>(t_[p_])) || t_[p_] == '-' ||
                              t_[p_] == '_' || t_[p_] == ':' || t_[p_] == '.'))
      ++p_;
    if (p_ > start && (std::isdigit(static_cast<unsigned char>(t_[start])) || t_[start] == '-' ||
                       t_[start] == '.'))
      return {};
    return t_.substr(start, p_ - start);
  }
  bool Entity() {
    static const char* kKnown[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"};
    for (const char* k : kKnown) {
      if (At(k)) {
        p_ += std::strlen(k);
        return true;
      }
    }
    if (!At("&#")) return false;
    size_t q = p_ + 2;
    const bool hex = q < t_.size() && t_[q] == 'x';
    if (hex) ++q;
    const size_t digits = q;
    while (q < t_.size() && (hex ? std::isxdigit(static_cast<unsigned char>(t_[q]))
                                 : std::isdigit(static_cast<unsigned char>(t_[q]))))
      ++q;
    if (q == digits || q >= t_.size() || t_[q] != ';') return false;
    p_ = q + 1;
    return true;
  }
  bool Text() {
    while (p_ < t_.size() && t_[p_] != '<') {
      if (t_[p_] == '&') {
        if (!Entity()) return false;
      } else {
        ++p_;
      }
    }
    return true;
  }
  bool Attributes() {
    std::vector<std::string> seen;
    while (true) {
      const size_t before = p_;
      SkipSpace();
      if (p_ >= t_.size()) return false;
      if (t_[p_] == '>' || t_[p_] == '/') return true;
      if (p_ == before) return false;  // attributes are separated by white space
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

bool IsWellFormedXmlByHand(const std::string& text, std::string* why) {
  return XmlChecker(text).Check(why);
}

#ifdef JX_HAVE_EXPAT
bool HaveXmlParser() { return true; }

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
#else
bool HaveXmlParser() { return false; }

bool IsWellFormedXml(const std::string& text, std::string* why) {
  return IsWellFormedXmlByHand(text, why);
}
#endif

}  // namespace jx::tool::testing
