#include "testing/redis_server.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace jx::testing {
namespace {

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

}  // namespace

bool RedisServer::Installed() { return !FindRedisServer().empty(); }

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
    port_ = std::atoi(address.c_str() + address.rfind(':') + 1);
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
  if (!Installed()) {
    *why = "redis-server is not installed";
    return false;
  }
  char pattern[] = "/tmp/jx-redis-XXXXXX";
  if (!::mkdtemp(pattern)) {
    *why = "no temporary folder";
    return false;
  }
  dir_ = pattern;
  std::vector<std::string> args;
  if (listen == Listen::kUnixSocket) {
    socket_ = dir_ + "/redis.sock";
    address_ = "unix://" + socket_;
    args = {"--port", "0", "--unixsocket", socket_, "--unixsocketperm", "700"};
  } else {
    port_ = FreeLoopbackPort();
    address_ = "redis://127.0.0.1:" + std::to_string(port_);
    args = {"--port", std::to_string(port_), "--bind", "127.0.0.1"};
  }
  return process_.Start(dir_, address_, args, why);
}

std::string RedisServer::Command(const std::vector<std::string>& args) {
  return RedisCommand(address_, args, std::chrono::seconds(2));
}

void RedisServer::Kill() { process_.Kill(); }
void RedisServer::Pause() { process_.Pause(); }
void RedisServer::Resume() { process_.Resume(); }

RedisServer::~RedisServer() {
  Kill();
  if (!dir_.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
}

}  // namespace jx::testing
