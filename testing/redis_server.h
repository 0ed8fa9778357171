// A redis-server of a test's own: started on a free loopback port (or a unix socket in a
// temporary folder) with persistence off, and killed when the object goes.
//
// A test that never stops, pauses or reconfigures its server may share instead the one the
// environment names (JX_FARM_TEST_ADDRESS, which CI sets to a server it starts for the whole
// run): Share uses that one when set and starts a server of its own otherwise. Such a test must
// leave nothing behind that another could read (unique keys, short TTLs).
//
// When redis-server is not installed, Start reports it: a test then fails when the environment
// says the farm tier's tests must run (JX_REQUIRE_REDIS=1, as CI sets it) and skips otherwise
// (JX_REDIS_OR_SKIP does exactly that). Every wait here is bounded; none waits for ever.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "testing/redis_process.h"

namespace jx::testing {

class RedisServer {
 public:
  enum class Listen { kLoopbackPort, kUnixSocket };
  RedisServer() = default;
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  // Whether redis-server is on the PATH.
  static bool Installed();
  // Whether a missing server must fail the test rather than skip it.
  static bool Required();
  // Starts the server and waits (up to 10 s) for it to answer PING. False, with `why`, when it
  // does not.
  bool Start(Listen listen, std::string* why);
  // The server JX_FARM_TEST_ADDRESS names ("unix:///path" or "redis://127.0.0.1:PORT"), when
  // set; otherwise Start(listen). False, with `why`, when the one named does not answer PING.
  bool Share(Listen listen, std::string* why);
  // JX_FARM_TEST_ADDRESS, or null when unset or empty.
  static const char* SharedAddress();
  // The address for the farm tier: "redis://127.0.0.1:PORT" or "unix:///...".
  const std::string& Address() const { return address_; }
  int Port() const { return port_; }

  // Runs one command on a connection of its own (the test's control channel): the reply as
  // RedisCommand gives it.
  std::string Command(const std::vector<std::string>& args);

  // Only for a server of the test's own: on a shared one they do nothing.
  void Kill();    // SIGKILL, and reaps it
  void Pause();   // SIGSTOP
  void Resume();  // SIGCONT
  pid_t Pid() const { return process_.Pid(); }

 private:
  RedisProcess process_;
  int port_ = 0;
  std::string dir_;
  std::string socket_;
  std::string address_;
};

}  // namespace jx::testing

// Starts `server` listening as `listen`, or fails / skips the test as described above.
#define JX_REDIS_OR_SKIP(server, listen)                                                        \
  do {                                                                                          \
    if (!::jx::testing::RedisServer::Installed()) {                                             \
      if (::jx::testing::RedisServer::Required()) FAIL() << "redis-server is not installed";    \
      GTEST_SKIP() << "redis-server is not installed (set JX_REQUIRE_REDIS=1 to fail instead)"; \
    }                                                                                           \
    std::string redis_why_;                                                                     \
    ASSERT_TRUE((server).Start((listen), &redis_why_)) << redis_why_;                           \
  } while (0)

// As JX_REDIS_OR_SKIP, with the run's shared server when there is one (see Share).
#define JX_SHARED_REDIS_OR_SKIP(server, listen)                                                 \
  do {                                                                                          \
    if (!::jx::testing::RedisServer::SharedAddress() &&                                         \
        !::jx::testing::RedisServer::Installed()) {                                             \
      if (::jx::testing::RedisServer::Required()) FAIL() << "redis-server is not installed";    \
      GTEST_SKIP() << "redis-server is not installed (set JX_REQUIRE_REDIS=1 to fail instead)"; \
    }                                                                                           \
    std::string redis_why_;                                                                     \
    ASSERT_TRUE((server).Share((listen), &redis_why_)) << redis_why_;                           \
  } while (0)
