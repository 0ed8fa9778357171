#include "testing/redis_process.h"

#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <thread>

namespace jx::testing {
namespace {

std::string ReplyText(const redisReply* r) {
  switch (r->type) {
    case REDIS_REPLY_NIL:
      return "(nil)";
    case REDIS_REPLY_INTEGER:
      return std::to_string(r->integer);
    case REDIS_REPLY_ARRAY: {
      std::string text;
      for (size_t i = 0; i < r->elements; ++i) {
        if (r->element[i]->type != REDIS_REPLY_STRING) continue;
        text.append(r->element[i]->str, r->element[i]->len);
        text.push_back('\n');
      }
      return text;
    }
    default:
      return std::string(r->str, r->len);
  }
}

redisContext* Connect(const std::string& address, const timeval& timeout) {
  if (address.rfind("unix://", 0) == 0) {
    return redisConnectUnixWithTimeout(address.substr(7).c_str(), timeout);
  }
  if (address.rfind("redis://", 0) != 0) return nullptr;
  const std::string hostPort = address.substr(8);
  const size_t colon = hostPort.rfind(':');
  if (colon == std::string::npos) return nullptr;
  return redisConnectWithTimeout(hostPort.substr(0, colon).c_str(),
                                 std::atoi(hostPort.c_str() + colon + 1), timeout);
}

}  // namespace

std::string FindRedisServer() {
  const char* path = std::getenv("PATH");
  std::stringstream all(path ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(all, dir, ':')) {
    const std::string candidate = dir + "/redis-server";
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

std::string RedisCommand(const std::string& address, const std::vector<std::string>& args,
                         std::chrono::seconds timeout) {
  const timeval tv{static_cast<time_t>(timeout.count()), 0};
  redisContext* c = Connect(address, tv);
  if (!c || c->err) {
    if (c) redisFree(c);
    return "(fault)";
  }
  redisSetTimeout(c, tv);
  std::vector<const char*> argv;
  std::vector<size_t> lengths;
  for (const auto& a : args) {
    argv.push_back(a.data());
    lengths.push_back(a.size());
  }
  auto* r = static_cast<redisReply*>(
      redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lengths.data()));
  std::string text = r ? ReplyText(r) : "(fault)";
  if (r) freeReplyObject(r);
  redisFree(c);
  return text;
}

std::vector<std::string> ReplyLines(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream s(text);
  std::string line;
  while (std::getline(s, line)) out.push_back(line);
  return out;
}

bool RedisProcess::Start(const std::string& dir, const std::string& address,
                         const std::vector<std::string>& args, std::string* why) {
  Kill();
  const std::string binary = FindRedisServer();
  if (binary.empty()) {
    *why = "redis-server is not installed";
    return false;
  }
  std::vector<std::string> all = {
      binary,        "--save", "",           "--appendonly", "no",        "--dir",           dir,
      "--daemonize", "no",     "--loglevel", "warning",      "--logfile", dir + "/redis.log"};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);  // the parent died before the line above
    ::execv(binary.c_str(), argv.data());
    ::_exit(127);
  }
  if (pid_ < 0) {
    *why = "fork failed";
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    if (RedisCommand(address, {"PING"}, std::chrono::seconds(2)) == "PONG") return true;
    int status;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      *why = "redis-server exited at start (port taken?)";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  Kill();
  *why = "redis-server did not answer within 10 s";
  return false;
}

void RedisProcess::Kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGCONT);
  ::kill(pid_, SIGKILL);
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

void RedisProcess::Pause() {
  if (pid_ > 0) ::kill(pid_, SIGSTOP);
}

void RedisProcess::Resume() {
  if (pid_ > 0) ::kill(pid_, SIGCONT);
}

}  // namespace jx::testing
