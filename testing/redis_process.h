// A redis-server child process and a control connection to it, for the farm tier's tests, its
// stress program and its benchmark: one way to find, start, ask and stop a server. Needs no test
// framework. Every wait is bounded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace jx::testing {

// redis-server's path on PATH, or empty when it is not installed.
std::string FindRedisServer();

// Runs one command on a connection of its own to `address` ("unix:///path" or
// "redis://HOST:PORT"), connecting and waiting for the reply up to `timeout` each. The reply as
// text: "(nil)" for none, an integer in decimal, an array as its string elements one a line,
// "ERR ..." for an error, "(fault)" when no answer came.
std::string RedisCommand(const std::string& address, const std::vector<std::string>& args,
                         std::chrono::seconds timeout = std::chrono::seconds(5));

// The elements of an array reply of RedisCommand.
std::vector<std::string> ReplyLines(const std::string& text);

// One redis-server child, persistence off, logging to `dir`/redis.log; killed with its parent
// (a stress run killed mid-way leaves no server behind) and when this object goes.
class RedisProcess {
 public:
  RedisProcess() = default;
  ~RedisProcess() { Kill(); }
  RedisProcess(const RedisProcess&) = delete;
  RedisProcess& operator=(const RedisProcess&) = delete;

  // Starts the server with `args` added to its command line (where to listen, memory limits)
  // and waits up to 10 s for PING at `address`. False, with `why`, when it does not answer.
  // May be called again after Kill: a restart on the same address.
  bool Start(const std::string& dir, const std::string& address,
             const std::vector<std::string>& args, std::string* why);
  void Kill();    // SIGKILL (after SIGCONT, should it be paused), and reaps it
  void Pause();   // SIGSTOP
  void Resume();  // SIGCONT
  pid_t Pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

}  // namespace jx::testing
