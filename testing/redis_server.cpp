#include "testing/redis_server.h"

#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace jx::testing {
namespace {

std::string FindOnPath(const char* name) {
  const char* path = std::getenv("PATH");
  std::string all = path ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= all.size()) {
    size_t end = all.find(':', start);
    if (end == std::string::npos) end = all.size();
    const std::string candidate = all.substr(start, end - start) + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return {};
}

// A port nobody listens on now: bound to port 0 and let go. Another process could take it
// before the server does; the server then fails to start and the test says so.
int FreeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = 0;
  socklen_t len = sizeof a;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
    port = ntohs(a.sin_port);
  }
  ::close(fd);
  return port;
}

std::string ReplyText(const redisReply* r) {
  switch (r->type) {
    case REDIS_REPLY_NIL:
      return "(nil)";
    case REDIS_REPLY_INTEGER:
      return std::to_string(r->integer);
    case REDIS_REPLY_ARRAY:
      return "(array of " + std::to_string(r->elements) + ")";
    default:
      return std::string(r->str, r->len);
  }
}

}  // namespace

bool RedisServer::Installed() { return !FindOnPath("redis-server").empty(); }

bool RedisServer::Required() {
  const char* v = std::getenv("JX_REQUIRE_REDIS");
  return v && std::string(v) == "1";
}

const char* RedisServer::SharedAddress() {
  const char* v = std::getenv("JX_FARM_TEST_ADDRESS");
  return v && *v ? v : nullptr;
}

bool RedisServer::Share(Listen listen, std::string* why) {
  const char* shared = SharedAddress();
  if (!shared) return Start(listen, why);
  const std::string address = shared;
  if (address.rfind("unix://", 0) == 0 && address.size() > 7) {
    socket_ = address.substr(7);
  } else if (address.rfind("redis://", 0) == 0 && address.find(':', 8) != std::string::npos) {
    const size_t colon = address.rfind(':');
    host_ = address.substr(8, colon - 8);
    port_ = std::atoi(address.c_str() + colon + 1);
  } else {
    *why = "JX_FARM_TEST_ADDRESS: neither unix:///path nor redis://HOST:PORT: " + address;
    return false;
  }
  address_ = address;
  if (Command({"PING"}) == "PONG") return true;
  *why = "JX_FARM_TEST_ADDRESS: " + address + " does not answer";
  return false;
}

bool RedisServer::Start(Listen listen, std::string* why) {
  const std::string binary = FindOnPath("redis-server");
  if (binary.empty()) {
    *why = "redis-server is not installed";
    return false;
  }
  char pattern[] = "/tmp/jx-redis-XXXXXX";
  if (!::mkdtemp(pattern)) {
    *why = "no temporary folder";
    return false;
  }
  dir_ = pattern;
  std::vector<std::string> args = {binary,
                                   "--save",
                                   "",
                                   "--appendonly",
                                   "no",
                                   "--dir",
                                   dir_,
                                   "--daemonize",
                                   "no",
                                   "--loglevel",
                                   "warning",
                                   "--logfile",
                                   dir_ + "/redis.log"};
  if (listen == Listen::kUnixSocket) {
    socket_ = dir_ + "/redis.sock";
    address_ = "unix://" + socket_;
    args.insert(args.end(), {"--port", "0", "--unixsocket", socket_, "--unixsocketperm", "700"});
  } else {
    port_ = FreeLoopbackPort();
    address_ = "redis://127.0.0.1:" + std::to_string(port_);
    args.insert(args.end(), {"--port", std::to_string(port_), "--bind", "127.0.0.1"});
  }
  pid_ = ::fork();
  if (pid_ == 0) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(binary.c_str(), argv.data());
    ::_exit(127);
  }
  if (pid_ < 0) {
    *why = "fork failed";
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    if (Command({"PING"}) == "PONG") return true;
    int status;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      *why = "redis-server exited at start (port taken?)";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  *why = "redis-server did not answer within 10 s";
  return false;
}

std::string RedisServer::Command(const std::vector<std::string>& args) {
  const timeval tv{2, 0};
  redisContext* c = socket_.empty() ? redisConnectWithTimeout(host_.c_str(), port_, tv)
                                    : redisConnectUnixWithTimeout(socket_.c_str(), tv);
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

void RedisServer::Kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGCONT);
  ::kill(pid_, SIGKILL);
  int status;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
}

void RedisServer::Pause() {
  if (pid_ > 0) ::kill(pid_, SIGSTOP);
}

void RedisServer::Resume() {
  if (pid_ > 0) ::kill(pid_, SIGCONT);
}

RedisServer::~RedisServer() {
  Kill();
  if (!dir_.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
}

}  // namespace jx::testing
