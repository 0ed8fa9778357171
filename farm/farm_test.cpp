// The farm tier against a redis-server of the test's own: values, their checks, large values,
// faults of the server, and the leases that make one node compute what the others wait for.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "disk/disk_test_support.h"
#include "farm/farm_counters.h"
#include "farm/farm_store.h"
#include "farm/farm_value.h"
#include "farm/tier.h"
#include "jxcache/disk/disk_executor.h"
#include "jxcache/farm/farm_compute.h"
#include "jxcache/items/sc_checkout.h"
#include "testing/keyed_payload.h"
#include "testing/redis_server.h"

namespace cf = jx::checkout_flags;
using jx::farm::FarmStore;
using jx::testing::KeyedPayload;
using jx::testing::RedisServer;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;
using Clock = std::chrono::steady_clock;

namespace {

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

uint64_t Count(const std::atomic<uint64_t>& counter) { return counter.load(); }

// An identity of a fresh key (never seen by another run on the same server).
jx::farm::Identity FreshIdentity() {
  jx::farm::Identity id;
  id.guid = Guid::CreateUnique();
  id.matchName = jx::testing::kKeyedPayloadName;
  id.version = 1;
  id.header = {1, 2, 3, 4, 5, 6, 7, 8};
  return id;
}

// The fields themselves come back through the store's round trips below.
TEST(FarmValueTest, HeaderRefusesWhatDoesNotFit) {
  using jx::farm::DecodeError;
  jx::farm::ValueHeader h;
  h.payloadLength = 5;
  h.hash = jx::farm::HashPayload("hello", 5);
  h.guid = Guid::CreateUnique();
  h.matchName = "KeyedPayload";
  const std::string value = jx::farm::EncodeHeader(h) + "hello";
  jx::farm::ValueHeader back;
  size_t at = 0;
  ASSERT_EQ(jx::farm::DecodeHeader(value, &back, &at), DecodeError::kNone);
  EXPECT_EQ(value.substr(at), "hello");
  EXPECT_EQ(jx::farm::DecodeHeader(value.substr(0, 20), &back, &at), DecodeError::kTooShort);
  EXPECT_EQ(jx::farm::DecodeHeader(value + "!", &back, &at), DecodeError::kBadLength);
  std::string badMagic = value;
  badMagic[0] = 'X';
  EXPECT_EQ(jx::farm::DecodeHeader(badMagic, &back, &at), DecodeError::kBadMagic);
  // A manifest whose parts do not cover its length would make a reader fetch the wrong amount.
  h.manifest = true;
  h.partTag = "t";
  h.partBytes = 4;
  h.parts = 1;
  EXPECT_EQ(jx::farm::DecodeHeader(jx::farm::EncodeHeader(h), &back, &at),
            DecodeError::kBadManifest);
  // A length whose rounding up to whole parts wraps: no parts must not pass for enough parts.
  h.payloadLength = ~uint64_t{0};
  h.partBytes = 2;
  h.parts = 0;
  EXPECT_EQ(jx::farm::DecodeHeader(jx::farm::EncodeHeader(h), &back, &at),
            DecodeError::kBadManifest);
}

TEST(FarmAddressTest, ParsesBothFormsAndRefusesOthers) {
  jx::farm::Address a;
  std::string why;
  ASSERT_TRUE(jx::farm::ParseAddress("redis://127.0.0.1:6380", &a, &why));
  EXPECT_EQ(a.host, "127.0.0.1");
  EXPECT_EQ(a.port, 6380);
  ASSERT_TRUE(jx::farm::ParseAddress("unix:///tmp/r.sock", &a, &why));
  EXPECT_TRUE(a.unixSocket);
  EXPECT_EQ(a.path, "/tmp/r.sock");
  for (const char* bad :
       {"127.0.0.1:6379", "redis://:6379", "redis://h:0", "redis://h:x", "unix://relative", ""}) {
    EXPECT_FALSE(jx::farm::ParseAddress(bad, &a, &why)) << bad;
  }
}

// On the run's server (JX_FARM_TEST_ADDRESS) if any, else the test's own on a unix socket: a
// value goes there once, comes back whole, and expires there.
TEST(FarmSharedServerTest, ValueRoundTripsThroughTheRunsServer) {
  RedisServer server;
  JX_SHARED_REDIS_OR_SKIP(server, RedisServer::Listen::kUnixSocket);
  jx::farm::Address address;
  std::string why;
  ASSERT_TRUE(jx::farm::ParseAddress(server.Address(), &address, &why)) << why;
  jx::farm::RedisPool pool({address});
  FarmStore store(pool, "node-shared", {.ttl = std::chrono::seconds(60)});
  const jx::farm::Identity id = FreshIdentity();
  const auto b = jx::testing::KeyedBytes(jx::testing::SeedOfKey(id.guid), 100000);
  const std::string bytes(b.begin(), b.end());
  auto& counters = jx::farm::GetCounters();
  const uint64_t writes = Count(counters.writes), duplicates = Count(counters.duplicateWrites);
  EXPECT_EQ(store.Get(id).status, FarmStore::GetStatus::kMiss);
  ASSERT_EQ(store.Put(id, bytes, 0.5), FarmStore::PutStatus::kWritten);
  const FarmStore::Fetched got = store.Get(id);
  ASSERT_EQ(got.status, FarmStore::GetStatus::kHit);
  EXPECT_TRUE(got.payload == bytes);
  EXPECT_EQ(got.computeSeconds, 0.5);
  EXPECT_EQ(got.writerNode, "node-shared");
  // First writer wins: a second write is a duplicate and leaves the value as it was.
  EXPECT_EQ(store.Put(id, "other bytes", 0.1), FarmStore::PutStatus::kDuplicate);
  EXPECT_EQ(Count(counters.writes), writes + 1);
  EXPECT_EQ(Count(counters.duplicateWrites), duplicates + 1);
  EXPECT_TRUE(store.Get(id).payload == bytes);
  // The key carries the application version: a new version stops reading the old values.
  auto newer = id;
  newer.version += 1;
  EXPECT_EQ(store.Get(newer).status, FarmStore::GetStatus::kMiss);
  const std::string key = jx::farm::KeyOf(id);
  EXPECT_EQ(server.Command({"EXISTS", key}), "1");
  const long ttl = std::stol(server.Command({"PTTL", key}));
  EXPECT_GT(ttl, 0);
  EXPECT_LE(ttl, 60000);
  server.Command({"DEL", key});
}

// Four commands at once that each take 100 ms: the pool opens four connections, idle afterwards.
bool FourIdleConnections(jx::farm::RedisPool& pool) {
  std::vector<std::thread> busy;
  for (int i = 0; i < 4; ++i) {
    busy.emplace_back([&] { pool.Command({"BLPOP", "jx:test:nothing", "0.1"}); });
  }
  for (auto& t : busy) t.join();
  return pool.ConnectionsOpened() == 4u;
}

// The library with a disk folder and a farm tier on a server of the test's own.
class FarmTest : public jx::testing::DiskTest {
 protected:
  void SetUp() override {
    JX_REDIS_OR_SKIP(server_, RedisServer::Listen::kLoopbackPort);
    jx::testing::DiskTest::SetUp();
    KeyedPayload::RegisterFactory();
    jx::farm::ResetCounters();
    Attach(config_);
  }
  void TearDown() override {
    // The disk writer's queued writes hold their items checked out until they are done.
    if (bag_) JX_StopAllAsyncWork();
    JX_DetachFarmTier();
    if (bag_) jx::testing::DiskTest::TearDown();
  }

  void Attach(JX_FarmConfig c) {
    c.address = server_.Address();
    if (c.node.empty()) c.node = "node-test";
    std::string why;
    ASSERT_TRUE(JX_AttachFarmTier(c, &why)) << why;
    config_ = c;
  }
  // A lease renewed every 300 ms, with room for a loaded machine: a renewal would have to be held
  // up for 600 ms for it to lapse, and a timeout (whose back-off outlasts the period) take 1 s.
  void ReattachWithShortLease() {
    Reattach([](JX_FarmConfig& c) {
      c.leaseMs = 900;
      c.connectTimeoutMs = c.commandTimeoutMs = 1000;
    });
  }
  // Attaches again with the defaults that `change` changes.
  template <class Change>
  void Reattach(Change change) {
    JX_FarmConfig c;
    change(c);
    JX_DetachFarmTier();
    Attach(c);
  }

  // The test's server, as a pool takes it.
  bool ServerAddress(jx::farm::Address* address) {
    std::string why;
    const bool ok = jx::farm::ParseAddress(server_.Address(), address, &why);
    EXPECT_TRUE(ok) << why;
    return ok;
  }
  // Options for a pool of the test's server with `timeout` for each command.
  bool ServerOptions(std::chrono::milliseconds timeout, jx::farm::RedisPool::Options* options) {
    options->commandTimeout = timeout;
    return ServerAddress(&options->address);
  }
  jx::farm::Identity IdentityOf(const Guid& guid, uint32_t size) {
    jx::farm::Identity id;
    id.guid = guid;
    id.matchName = jx::testing::kKeyedPayloadName;
    id.version = bag_->GetAppVersion();
    KeyedPayload(jx::testing::SeedOfKey(guid), size, false).GetHeader(headerScratch_);
    id.header.assign(headerScratch_.begin(), headerScratch_.end());
    return id;
  }
  std::string Bytes(const Guid& guid, uint32_t size) {
    const auto b = jx::testing::KeyedBytes(jx::testing::SeedOfKey(guid), size);
    return std::string(b.begin(), b.end());
  }
  FarmStore& Store() { return jx::farm::CurrentTier()->Store(); }

  // A pending item of `guid` this thread must fill, as a render thread gets it after a miss.
  IntrusivePtr<JX_Stuff> Pending(JX_ScCheckout& handle, const Guid& guid, uint32_t size) {
    auto request = JX_Stuff::CreateNew(
        IntrusivePtr<JX_StuffData>(new KeyedPayload(jx::testing::SeedOfKey(guid), size, false)),
        0.0);
    request->SetGuid(guid);
    EXPECT_EQ(handle.FindAndCheckout(
                  request, cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways | cf::kNoDiskRead),
              kJX_CreatedPending);
    return handle.GetStuffPtr();
  }
  bool HoldsBytes(const IntrusivePtr<JX_Stuff>& item, const Guid& guid) {
    auto* p = dynamic_cast<KeyedPayload*>(item->GetDataPtr().get());
    return p && p->HoldsBytesOf(guid);
  }
  // Fills the pending item as its render would, and checks it in.
  static void Render(JX_ScCheckout& handle, uint32_t size) {
    auto item = handle.GetStuffPtr();
    item->SetStuffDataFromPendingRender(KeyedPayload::ForKey(item->GetGuid(), size), 0.5);
    handle.Checkin(0, 0.5);
  }

  RedisServer server_;
  JX_FarmConfig config_;
  JX_StuffData::Header headerScratch_;
};

// What a bad disk, a stray writer, another program or an older build may leave under a key: each
// is counted corrupt, deleted, and a miss; the key then takes a good value again.
TEST_F(FarmTest, DamagedOrForeignValuesAreCountedMissesAndTheKeyRecovers) {
  auto& counters = jx::farm::GetCounters();
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 4096);
  const std::string key = jx::farm::KeyOf(id);
  ASSERT_EQ(Store().Put(id, Bytes(guid, 4096), 0.5), FarmStore::PutStatus::kWritten);
  const std::string offset = std::to_string(std::stol(server_.Command({"STRLEN", key})) - 100);
  const std::string old = server_.Command({"GETRANGE", key, offset, offset});
  ASSERT_EQ(old.size(), 1u);
  const Guid other = Guid::CreateUnique();
  ASSERT_EQ(Store().Put(IdentityOf(other, 64), Bytes(other, 64), 0.5),
            FarmStore::PutStatus::kWritten);
  // The same item under keys that differ only in what the name carries beyond GUID and match
  // name: the application version, and the payload's header.
  auto olderVersion = id;
  olderVersion.version -= 1;
  ASSERT_EQ(Store().Put(olderVersion, Bytes(guid, 4096), 0.5), FarmStore::PutStatus::kWritten);
  const auto otherHeader = IdentityOf(guid, 64);
  ASSERT_EQ(Store().Put(otherHeader, Bytes(guid, 64), 0.5), FarmStore::PutStatus::kWritten);
  std::string version(2, '\0');
  version[0] = static_cast<char>(jx::farm::kFormatVersion + 1);
  const struct {
    const char* what;
    std::vector<std::string> damage;  // a command run on the good value
  } cases[] = {
      {"one payload byte flipped",
       {"SETRANGE", key, offset, std::string(1, static_cast<char>(old[0] ^ 0x40))}},
      {"another item's value", {"COPY", jx::farm::KeyOf(IdentityOf(other, 64)), key, "REPLACE"}},
      {"garbage", {"SET", key, "not a farm value, just some bytes"}},
      {"a value longer than its header says", {"APPEND", key, "trailing"}},
      {"a header of another format version", {"SETRANGE", key, "4", version}},
      {"the item's value of another application version",
       {"COPY", jx::farm::KeyOf(olderVersion), key, "REPLACE"}},
      {"the item's value under another payload header",
       {"COPY", jx::farm::KeyOf(otherHeader), key, "REPLACE"}},
      {"another program's list",
       {"EVAL",
        "redis.call('del', KEYS[1]) "
        "return redis.call('rpush', KEYS[1], 'x')",
        "1", key}},
  };
  uint64_t expected = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(server_.Command({"DEL", key}).size(), 1u);
    ASSERT_EQ(Store().Put(id, Bytes(guid, 4096), 0.5), FarmStore::PutStatus::kWritten);
    ASSERT_NE(server_.Command(c.damage), "(fault)");
    EXPECT_EQ(Store().Get(id).status, FarmStore::GetStatus::kCorrupt);
    EXPECT_EQ(Count(counters.corrupt), ++expected);
    EXPECT_EQ(server_.Command({"EXISTS", key}), "0");
    EXPECT_EQ(Store().Get(id).status, FarmStore::GetStatus::kMiss);
  }
  // Through the host's API: garbage under the key is a miss, the node computes and shares the
  // item, and the next reader gets the good value.
  ASSERT_EQ(server_.Command({"SET", key, "garbage again"}), "OK");
  {
    JX_ScCheckout handle;
    JX_ScFarmCompute farm(Pending(handle, guid, 4096));
    ASSERT_EQ(farm.Fetch(), JX_ScFarmCompute::kComputeHere);
    EXPECT_EQ(Count(counters.corrupt), expected + 1);
    Render(handle, 4096);
    farm.Publish();
  }
  ASSERT_TRUE(JX_WaitForFarmWrites(5000));
  const FarmStore::Fetched got = Store().Get(id);
  ASSERT_EQ(got.status, FarmStore::GetStatus::kHit);
  EXPECT_EQ(got.payload, Bytes(guid, 4096));
}

// The compute seconds travel in the header, outside the payload's checksum, and reach the host's
// check-in and the disk writer's rule: a bit flipped there is damage, caught like any other.
TEST_F(FarmTest, FlippedBitInTheHeadersComputeSecondsIsCaughtLikeOneInThePayload) {
  auto& counters = jx::farm::GetCounters();
  const struct {
    const char* what;
    uint8_t mask;  // on the compute seconds' top byte (offset 39: a little-endian double)
  } cases[] = {
      {"an exponent bit: 0.5 s reads as 9e307 s", 0x40},
      {"the sign bit: 0.5 s reads as -0.5 s", 0x80},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Guid guid = Guid::CreateUnique();
    const auto id = IdentityOf(guid, 4096);
    const std::string key = jx::farm::KeyOf(id);
    ASSERT_EQ(Store().Put(id, Bytes(guid, 4096), 0.5), FarmStore::PutStatus::kWritten);
    const std::string old = server_.Command({"GETRANGE", key, "39", "39"});
    ASSERT_EQ(old.size(), 1u);
    ASSERT_EQ(server_.Command(
                  {"SETRANGE", key, "39", std::string(1, static_cast<char>(old[0] ^ c.mask))}),
              server_.Command({"STRLEN", key}));
    ASSERT_NE(server_.Command({"GETRANGE", key, "39", "39"}), old);  // the flip is there
    const uint64_t corrupt = Count(counters.corrupt);
    // What the host would be handed: the fetch through its API.
    JX_ScCheckout handle;
    JX_ScFarmCompute farm(Pending(handle, guid, 4096));
    const auto outcome = farm.Fetch();
    if (outcome == JX_ScFarmCompute::kFilledFromFarm) {
      EXPECT_EQ(farm.FetchedComputeSeconds(), 0.5) << "a damaged header was served";
      handle.Checkin(0, farm.FetchedComputeSeconds());
    } else {
      EXPECT_EQ(outcome, JX_ScFarmCompute::kComputeHere);
      Render(handle, 4096);
    }
    EXPECT_EQ(Count(counters.corrupt), corrupt + 1);
    EXPECT_EQ(server_.Command({"EXISTS", key}), "0");
  }
}

TEST_F(FarmTest, LargeValueGoesInPartsAndAMissingPartIsAMiss) {
  // Reading 9 MiB back can outlast the default command timeout on a loaded machine.
  Reattach([](JX_FarmConfig& c) { c.commandTimeoutMs = 10000; });
  const Guid guid = Guid::CreateUnique();
  const uint32_t size = (9u << 20) + 123;  // two parts of 8 MiB at most
  const auto id = IdentityOf(guid, size);
  ASSERT_EQ(Store().Put(id, Bytes(guid, size), 1.0), FarmStore::PutStatus::kWritten);
  const std::string key = jx::farm::KeyOf(id);
  // The key holds only the manifest; the bytes are in the parts.
  EXPECT_LT(std::stol(server_.Command({"STRLEN", key})), 1024);
  EXPECT_EQ(jx::testing::ReplyLines(server_.Command({"KEYS", key + ":part:*"})).size(), 2u);
  const FarmStore::Fetched got = Store().Get(id);
  ASSERT_EQ(got.status, FarmStore::GetStatus::kHit);
  EXPECT_TRUE(got.payload == Bytes(guid, size));
  // A second writer's parts are its own and go when it loses the race.
  EXPECT_EQ(Store().Put(id, Bytes(guid, size), 1.0), FarmStore::PutStatus::kDuplicate);
  EXPECT_EQ(jx::testing::ReplyLines(server_.Command({"KEYS", key + ":part:*"})).size(), 2u);

  // A part deleted (evicted, expired) between the commit and our read, found through the server.
  const std::string second =
      server_.Command({"EVAL",
                       "for _, k in ipairs(redis.call('keys', ARGV[1])) do "
                       "if string.sub(k, -2) == ':1' then return k end end return ''",
                       "0", key + ":part:*"});
  ASSERT_NE(second.find(":part:"), std::string::npos) << second;
  ASSERT_EQ(server_.Command({"DEL", second}), "1");
  EXPECT_EQ(Store().Get(id).status, FarmStore::GetStatus::kMissingPart);
  EXPECT_EQ(Count(jx::farm::GetCounters().missingParts), 1u);
  // The broken value is gone, so that the next compute can put it back.
  EXPECT_EQ(server_.Command({"EXISTS", key}), "0");
  EXPECT_EQ(Store().Put(id, Bytes(guid, size), 1.0), FarmStore::PutStatus::kWritten);
}

TEST_F(FarmTest, ServerFaultsAreBoundedCountedMisses) {
  Reattach([](JX_FarmConfig& c) { c.connectTimeoutMs = c.commandTimeoutMs = 200; });
  auto& counters = jx::farm::GetCounters();
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 1024);
  ASSERT_EQ(Store().Put(id, Bytes(guid, 1024), 0.5), FarmStore::PutStatus::kWritten);

  // Every connection cut by the server: the pooled one fails once, then a new one is made.
  ASSERT_NE(server_.Command({"CLIENT", "KILL", "TYPE", "normal"}), "(fault)");
  EXPECT_EQ(Store().Get(id).status, FarmStore::GetStatus::kFault);
  EXPECT_EQ(Count(counters.connectionErrors), 1u);
  EXPECT_EQ(Store().Get(id).status, FarmStore::GetStatus::kHit);

  // The server refuses writes at its memory limit.
  ASSERT_EQ(server_.Command({"CONFIG", "SET", "maxmemory-policy", "noeviction"}), "OK");
  ASSERT_EQ(server_.Command({"CONFIG", "SET", "maxmemory", "1"}), "OK");
  const Guid refused = Guid::CreateUnique();
  EXPECT_EQ(Store().Put(IdentityOf(refused, 1024), Bytes(refused, 1024), 0.5),
            FarmStore::PutStatus::kFault);
  EXPECT_EQ(Count(counters.refusedCommands), 1u);
  EXPECT_EQ(Store().Get(IdentityOf(refused, 1024)).status, FarmStore::GetStatus::kMiss);
  ASSERT_EQ(server_.Command({"CONFIG", "SET", "maxmemory", "0"}), "OK");

  // A stalled server: the read ends at the command timeout, and for the back-off after it the
  // tier does not even try.
  server_.Pause();
  auto start = Clock::now();
  EXPECT_EQ(Store().Get(id).status, FarmStore::GetStatus::kFault);
  EXPECT_LT(SecondsSince(start), 2.0);
  EXPECT_EQ(Count(counters.timeouts), 1u);
  start = Clock::now();
  EXPECT_EQ(Store().Get(id).status, FarmStore::GetStatus::kFault);
  EXPECT_LT(SecondsSince(start), 0.1);
  server_.Resume();

  // A dead server: a miss at once, never an exception.
  server_.Kill();
  std::this_thread::sleep_for(std::chrono::milliseconds(600));  // past the back-off
  const uint64_t connectionErrors = Count(counters.connectionErrors);
  start = Clock::now();
  EXPECT_EQ(Store().Get(id).status, FarmStore::GetStatus::kFault);
  EXPECT_EQ(Store().Put(id, "x", 0.5), FarmStore::PutStatus::kFault);
  EXPECT_LT(SecondsSince(start), 2.0);
  EXPECT_GE(Count(counters.connectionErrors), connectionErrors + 2);
  // Through the host's API it is a plain miss: compute it here.
  JX_ScCheckout handle;
  {
    JX_ScFarmCompute farm(Pending(handle, Guid::CreateUnique(), 1024));
    EXPECT_EQ(farm.Fetch(), JX_ScFarmCompute::kComputeHere);
    EXPECT_FALSE(farm.HoldsLease());
  }
  Render(handle, 1024);
  EXPECT_GE(Count(counters.errors), 5u);
}

TEST_F(FarmTest, ComputingNodeHoldsARenewedLeaseAndPublishesOnTheWriter) {
  ReattachWithShortLease();
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 64 << 10);
  const std::string lease = jx::farm::LeaseKeyOf(jx::farm::KeyOf(id));
  JX_ScCheckout handle;
  auto item = Pending(handle, guid, 64 << 10);
  JX_ScFarmCompute farm(item);
  ASSERT_EQ(farm.Fetch(), JX_ScFarmCompute::kComputeHere);
  ASSERT_TRUE(farm.HoldsLease());
  EXPECT_EQ(server_.Command({"GET", lease}).rfind("node-test/", 0), 0u);
  // A compute three times as long as the lease: renewal keeps it.
  std::this_thread::sleep_for(std::chrono::milliseconds(2700));
  EXPECT_EQ(server_.Command({"EXISTS", lease}), "1");
  Render(handle, 64 << 10);
  farm.Publish();
  ASSERT_TRUE(JX_WaitForFarmWrites(5000));
  EXPECT_EQ(Count(jx::farm::GetCounters().writes), 1u);
  EXPECT_EQ(server_.Command({"EXISTS", lease}), "0");
  EXPECT_EQ(Store().Get(id).payload, Bytes(guid, 64 << 10));
}

// A renewal that fails on the wire is tried again: one fault must not let a long compute's lease
// lapse (a waiting node computes too). A lease another node holds now is lost, and left to it.
TEST_F(FarmTest, RenewalOutlivesAFaultAndLeavesAnotherNodesLeaseAlone) {
  ReattachWithShortLease();
  auto& counters = jx::farm::GetCounters();
  const Guid guid = Guid::CreateUnique();
  const std::string lease = jx::farm::LeaseKeyOf(jx::farm::KeyOf(IdentityOf(guid, 1024)));
  JX_ScCheckout handle;
  {
    JX_ScFarmCompute farm(Pending(handle, guid, 1024));
    ASSERT_EQ(farm.Fetch(), JX_ScFarmCompute::kComputeHere);
    ASSERT_TRUE(farm.HoldsLease());
    const std::string token = server_.Command({"GET", lease});
    // The pool's one connection is cut: the next renewal fails on it.
    const uint64_t connectionErrors = Count(counters.connectionErrors);
    ASSERT_NE(server_.Command({"CLIENT", "KILL", "TYPE", "normal"}), "(fault)");
    ASSERT_TRUE(jx::testing::EventuallyTrue(
        [&] { return Count(counters.connectionErrors) > connectionErrors; }));
    // More than two lease times later the lease is still ours.
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    EXPECT_EQ(server_.Command({"GET", lease}), token);
    EXPECT_EQ(Count(counters.leasesLost), 0u);
    // Another node has the lease now (ours lapsed while this node lost the server, say).
    ASSERT_EQ(server_.Command({"SET", lease, "node-other/1", "PX", "60000"}), "OK");
    EXPECT_TRUE(jx::testing::EventuallyTrue([&] { return Count(counters.leasesLost) == 1; }));
  }
  // Giving ours up must not end the other node's.
  EXPECT_EQ(server_.Command({"GET", lease}), "node-other/1");
  Render(handle, 1024);
}

// Detaching ends the renewal, not the leases: a running compute and farm write go on and give
// each lease up when done. A lease given up at the detach sends a waiting node to compute too.
TEST_F(FarmTest, DetachLeavesTheLeasesOfRunningComputesAndWrites) {
  auto& counters = jx::farm::GetCounters();
  // Two tasks hold the disk executor's two places, so that the farm write waits in its queue.
  auto opened = std::make_shared<std::promise<void>>();
  const std::shared_future<void> gate = opened->get_future().share();
  auto running = std::make_shared<std::atomic<int>>(0);
  std::once_flag once;
  auto open = [&] { std::call_once(once, [&] { opened->set_value(); }); };
  std::shared_ptr<void> opensAtTheEnd(nullptr, [&](void*) { open(); });
  const auto executor = jx::DiskExecutor();
  ASSERT_TRUE(executor);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(executor->Post([gate, running] {
      ++*running;
      gate.wait_for(std::chrono::seconds(30));
    }));
  }
  ASSERT_TRUE(jx::testing::EventuallyTrue([&] { return *running == 2; }));
  const Guid written = Guid::CreateUnique(), computing = Guid::CreateUnique();
  const auto writtenId = IdentityOf(written, 64 << 10);
  const std::string writtenLease = jx::farm::LeaseKeyOf(jx::farm::KeyOf(writtenId));
  const std::string computingLease =
      jx::farm::LeaseKeyOf(jx::farm::KeyOf(IdentityOf(computing, 1024)));
  JX_ScCheckout writtenHandle, computingHandle;
  {
    JX_ScFarmCompute farm(Pending(writtenHandle, written, 64 << 10));
    ASSERT_EQ(farm.Fetch(), JX_ScFarmCompute::kComputeHere);
    Render(writtenHandle, 64 << 10);
    farm.Publish();
  }
  EXPECT_EQ(counters.uploadsQueued.load(), 1u);
  const std::string writtenToken = server_.Command({"GET", writtenLease});
  auto farm = std::make_unique<JX_ScFarmCompute>(Pending(computingHandle, computing, 1024));
  ASSERT_EQ(farm->Fetch(), JX_ScFarmCompute::kComputeHere);
  const std::string computingToken = server_.Command({"GET", computingLease});

  JX_DetachFarmTier();
  EXPECT_EQ(Count(counters.writes), 0u);  // the write is still queued
  EXPECT_EQ(server_.Command({"GET", writtenLease}), writtenToken);
  EXPECT_EQ(server_.Command({"GET", computingLease}), computingToken);

  open();
  ASSERT_TRUE(JX_WaitForFarmWrites(10000));
  EXPECT_EQ(Count(counters.writes), 1u);
  EXPECT_EQ(server_.Command({"EXISTS", jx::farm::KeyOf(writtenId)}), "1");
  EXPECT_EQ(server_.Command({"EXISTS", writtenLease}), "0");
  Render(computingHandle, 1024);
  farm.reset();  // not published: the lease goes with the compute
  EXPECT_EQ(server_.Command({"EXISTS", computingLease}), "0");
}

TEST_F(FarmTest, WaiterGetsTheOtherNodesValueAndWritesItLocallyOnly) {
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 64 << 10);
  const std::string key = jx::farm::KeyOf(id);
  // Another node is computing the item.
  FarmStore& other = Store();
  const std::string token = "node-other/1";
  ASSERT_EQ(other.TakeLease(key, token, std::chrono::milliseconds(5000)),
            FarmStore::LeaseStatus::kTaken);
  std::thread otherNode([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    other.Put(id, Bytes(guid, 64 << 10), 0.5);
    other.ReleaseLease(key, token);
  });
  JX_ScCheckout handle;
  auto item = Pending(handle, guid, 64 << 10);
  JX_ScFarmCompute farm(item);
  const auto start = Clock::now();
  EXPECT_EQ(farm.Fetch(), JX_ScFarmCompute::kFilledFromFarm);
  otherNode.join();
  EXPECT_GE(SecondsSince(start), 0.25);
  EXPECT_EQ(farm.FetchedComputeSeconds(), 0.5);
  EXPECT_TRUE(HoldsBytes(item, guid));
  auto& counters = jx::farm::GetCounters();
  EXPECT_EQ(Count(counters.leaseWaits), 1u);
  EXPECT_EQ(Count(counters.hits), 1u);
  EXPECT_EQ(Count(counters.leaseTakeovers), 0u);
  // The host checks the hit in like a render: the local disk writer takes it; the farm does not.
  handle.Checkin(0, farm.FetchedComputeSeconds());
  farm.Publish();  // a host that always publishes: a farm hit is not offered back
  ASSERT_TRUE(jx::testing::EventuallyTrue([&] { return item->HasDiskCacheFile(); }));
  EXPECT_TRUE(JX_WaitForFarmWrites(5000));
  EXPECT_EQ(Count(counters.writes), 1u);  // the other node's, none of ours
  EXPECT_EQ(Count(counters.duplicateWrites), 0u);
}

// A wait for another node's lease ends when it lapses (taken over) or at the wait limit (this
// node computes without the lease).
TEST_F(FarmTest, AWaitForAnotherNodesLeaseEndsAtItsLapseOrAtTheWaitLimit) {
  using Counter = std::atomic<uint64_t> jx::farm::Counters::*;
  const struct {
    const char* what;
    uint32_t leaseWaitMs, leaseMs;
    double minWait;
    bool takesOver;
    Counter counter;
  } cases[] = {
      {"a dead node", 10000, 400, 0.3, true, &jx::farm::Counters::leaseTakeovers},
      {"a slow node", 300, 60000, 0.29, false, &jx::farm::Counters::leaseWaitsGivenUp},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Reattach([&](JX_FarmConfig& config) { config.leaseWaitMs = c.leaseWaitMs; });
    jx::farm::ResetCounters();
    const Guid guid = Guid::CreateUnique();
    ASSERT_EQ(Store().TakeLease(jx::farm::KeyOf(IdentityOf(guid, 1024)), "node-other/1",
                                std::chrono::milliseconds(c.leaseMs)),
              FarmStore::LeaseStatus::kTaken);
    JX_ScCheckout handle;
    JX_ScFarmCompute farm(Pending(handle, guid, 1024));
    const auto start = Clock::now();
    EXPECT_EQ(farm.Fetch(), JX_ScFarmCompute::kComputeHere);
    const double waited = SecondsSince(start);
    EXPECT_GE(waited, c.minWait);
    EXPECT_LT(waited, 1.5);
    EXPECT_EQ(farm.HoldsLease(), c.takesOver);
    EXPECT_EQ(Count(jx::farm::GetCounters().*c.counter), 1u);
    Render(handle, 1024);
  }
}

// Bytes that pass the checksum but that the payload class refuses must go like any corrupt value,
// the reader computing under the lease: SET NX would otherwise keep the good value out for good.
TEST_F(FarmTest, ValueItsPayloadClassRefusesIsDeletedAndTheItemComputedUnderTheLease) {
  auto& counters = jx::farm::GetCounters();
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 4096);
  const std::string key = jx::farm::KeyOf(id);
  const Guid other = Guid::CreateUnique();
  ASSERT_EQ(Store().Put(id, Bytes(other, 4096), 0.5), FarmStore::PutStatus::kWritten);
  {
    JX_ScCheckout handle;
    JX_ScFarmCompute farm(Pending(handle, guid, 4096));
    ASSERT_EQ(farm.Fetch(), JX_ScFarmCompute::kComputeHere);
    EXPECT_EQ(Count(counters.hits), 0u);
    EXPECT_GE(Count(counters.errors) + Count(counters.corrupt), 1u);  // the refusal was met
    EXPECT_EQ(server_.Command({"EXISTS", key}), "0");
    EXPECT_TRUE(farm.HoldsLease());
    Render(handle, 4096);
    farm.Publish();
  }
  ASSERT_TRUE(JX_WaitForFarmWrites(5000));
  const FarmStore::Fetched got = Store().Get(id);
  ASSERT_EQ(got.status, FarmStore::GetStatus::kHit);
  EXPECT_TRUE(got.payload == Bytes(guid, 4096));
}

// A manifest claiming parts of 4 GiB must not make the reader allocate them before a part has
// arrived. Address space is limited around the read, so that such an allocation fails here.
TEST_F(FarmTest, ManifestClaimingHugePartsAllocatesNothingBeforeThePartsArrive) {
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 4096);
  const std::string key = jx::farm::KeyOf(id);
  jx::farm::ValueHeader h;
  h.manifest = true;
  h.payloadLength = 0xFFFFFFF0u;
  h.partBytes = 0xFFFFFFFFu;
  h.parts = 1;
  h.partTag = "t";
  h.guid = guid;
  h.matchName = id.matchName;
  h.key = key;
  ASSERT_EQ(server_.Command({"SET", key, jx::farm::EncodeHeader(h)}), "OK");
  // Current address space plus 1 GiB.
  std::ifstream status("/proc/self/status");
  std::string line;
  uint64_t vmKb = 0;
  while (std::getline(status, line)) {
    if (line.rfind("VmSize:", 0) == 0) vmKb = std::stoull(line.substr(7));
  }
  ASSERT_GT(vmKb, 0u);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
  rlimit limited = before;
  limited.rlim_cur = (vmKb << 10) + (uint64_t{1} << 30);
  if (before.rlim_cur != RLIM_INFINITY && before.rlim_cur < limited.rlim_cur) {
    GTEST_SKIP() << "address space already limited";
  }
  ASSERT_EQ(setrlimit(RLIMIT_AS, &limited), 0);
  FarmStore::GetStatus got = FarmStore::GetStatus::kHit;
  bool threw = false;
  try {
    got = Store().Get(id).status;
  } catch (...) {
    threw = true;
  }
  ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_FALSE(threw);
  EXPECT_EQ(got, FarmStore::GetStatus::kMissingPart);
  EXPECT_EQ(server_.Command({"EXISTS", key}), "0");
}

// A stalled server costs one command timeout, then the tier fails fast for the back-off: also
// when the pool holds idle connections, each of which would otherwise wait out a timeout.
TEST_F(FarmTest, StalledServerCostsOneTimeoutThoughThePoolHoldsIdleConnections) {
  jx::farm::RedisPool::Options options;
  // Well above the idle connections' 100 ms BLPOP: a timeout there would start the back-off.
  ASSERT_TRUE(ServerOptions(std::chrono::milliseconds(1000), &options));
  options.connectTimeout = options.commandTimeout;
  options.backOff = std::chrono::milliseconds(10000);
  jx::farm::RedisPool pool(options);
  ASSERT_TRUE(FourIdleConnections(pool));
  ASSERT_EQ(Count(jx::farm::GetCounters().timeouts), 0u) << "a BLPOP ran out: nothing tested";
  FarmStore store(pool, "node-stall", {});
  const auto id = IdentityOf(Guid::CreateUnique(), 64);
  auto& counters = jx::farm::GetCounters();
  const uint64_t timeouts = Count(counters.timeouts);
  server_.Pause();
  const auto start = Clock::now();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(store.Get(id).status, FarmStore::GetStatus::kFault);
  const double took = SecondsSince(start);
  server_.Resume();
  EXPECT_EQ(Count(counters.timeouts), timeouts + 1);
  EXPECT_LT(took, 3.0);  // one timeout of a second, not four
}

// A server that dropped every connection costs one failed command, not one per pooled connection:
// each failure is a miss, or a lease not taken, and so a frame rendered again.
TEST_F(FarmTest, ConnectionsDroppedByTheServerCostOneFailedCommand) {
  jx::farm::Address address;
  ASSERT_TRUE(ServerAddress(&address));
  jx::farm::RedisPool pool({address});
  ASSERT_TRUE(FourIdleConnections(pool));
  FarmStore store(pool, "node-reset", {});
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 64);
  ASSERT_EQ(store.Put(id, Bytes(guid, 64), 0.5), FarmStore::PutStatus::kWritten);
  auto& counters = jx::farm::GetCounters();
  const uint64_t errors = Count(counters.connectionErrors);
  ASSERT_NE(server_.Command({"CLIENT", "KILL", "TYPE", "normal"}), "(fault)");
  int hits = 0;
  for (int i = 0; i < 4; ++i) hits += store.Get(id).status == FarmStore::GetStatus::kHit;
  EXPECT_EQ(Count(counters.connectionErrors), errors + 1);
  EXPECT_EQ(hits, 3);
}

// A reader deleting the broken value it read must not take (and orphan the parts of) a good value
// that replaced it meanwhile. The server holds the reader's deletions back while the key changes.
TEST_F(FarmTest, ReaderDeletingABrokenValueLeavesTheValueThatReplacedItAlone) {
  jx::farm::RedisPool::Options options;
  ASSERT_TRUE(ServerOptions(std::chrono::milliseconds(3000), &options));
  jx::farm::RedisPool pool(options);
  FarmStore store(pool, "node-reader", {.partBytes = 16});
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 1600);  // 100 parts
  const std::string key = jx::farm::KeyOf(id);
  const std::string spare = key + ":spare";
  // The good value that will replace the broken one, kept aside under another name.
  ASSERT_EQ(store.Put(id, Bytes(guid, 1600), 0.5), FarmStore::PutStatus::kWritten);
  ASSERT_EQ(server_.Command({"RENAME", key, spare}), "OK");
  // The broken one: a part gone.
  ASSERT_EQ(store.Put(id, Bytes(guid, 1600), 0.5), FarmStore::PutStatus::kWritten);
  jx::farm::ValueHeader manifest;
  size_t at = 0;
  ASSERT_EQ(jx::farm::DecodeHeader(server_.Command({"GET", key}), &manifest, &at),
            jx::farm::DecodeError::kNone);
  ASSERT_EQ(server_.Command({"DEL", jx::farm::PartKeyOf(key, manifest.partTag, 50)}), "1");
  ASSERT_EQ(server_.Command({"CLIENT", "PAUSE", "5000", "WRITE"}), "OK");
  FarmStore::GetStatus status = FarmStore::GetStatus::kHit;
  std::thread reader([&] { status = store.Get(id).status; });
  // The reader reads the manifest and 51 parts, then waits at its first deletion.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(server_.Command({"CLIENT", "UNPAUSE"}), "OK");
  EXPECT_EQ(server_.Command({"RENAME", spare, key}), "OK");
  reader.join();  // bounded: each of its commands by the command timeout
  EXPECT_EQ(status, FarmStore::GetStatus::kMissingPart);
  EXPECT_EQ(Count(jx::farm::GetCounters().missingParts), 1u);
  const FarmStore::Fetched got = store.Get(id);
  ASSERT_EQ(got.status, FarmStore::GetStatus::kHit);
  EXPECT_TRUE(got.payload == Bytes(guid, 1600));
}

// The same race for a key holding no value at all (another program's list, an empty string). The
// server holds writes back, the good value's first, so that it lands just before the deletion.
TEST_F(FarmTest, ReaderDeletingAForeignOrEmptyKeyLeavesTheValueThatReplacedItAlone) {
  jx::farm::RedisPool::Options options;
  ASSERT_TRUE(ServerOptions(std::chrono::milliseconds(3000), &options));
  jx::farm::RedisPool pool(options);
  FarmStore store(pool, "node-reader", {});
  const Guid guid = Guid::CreateUnique();
  const auto id = IdentityOf(guid, 1024);
  const std::string key = jx::farm::KeyOf(id);
  const std::string spare = key + ":spare";
  // Clients whose command the paused server holds back.
  auto held = [&] {
    int n = 0;
    for (const std::string& c : jx::testing::ReplyLines(server_.Command({"CLIENT", "LIST"}))) {
      n += c.find(" flags=b ") != std::string::npos;
    }
    return n;
  };
  const struct {
    const char* what;
    std::vector<std::string> bad;
  } cases[] = {
      {"another program's list", {"RPUSH", key, "x"}},
      {"an empty string", {"SET", key, ""}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(store.Put(id, Bytes(guid, 1024), 0.5), FarmStore::PutStatus::kWritten);
    ASSERT_EQ(server_.Command({"RENAME", key, spare}), "OK");
    ASSERT_NE(server_.Command(c.bad), "(fault)");
    const uint64_t corrupt = Count(jx::farm::GetCounters().corrupt);
    ASSERT_EQ(server_.Command({"CLIENT", "PAUSE", "5000", "WRITE"}), "OK");
    std::string renamed;
    std::thread writer([&] { renamed = server_.Command({"RENAME", spare, key}); });
    EXPECT_TRUE(jx::testing::EventuallyTrue([&] { return held() == 1; }));
    FarmStore::GetStatus status = FarmStore::GetStatus::kHit;
    std::thread reader([&] { status = store.Get(id).status; });
    // The reader found the bad key (reads pass) and waits at its deletion.
    EXPECT_TRUE(jx::testing::EventuallyTrue([&] { return held() == 2; }));
    EXPECT_EQ(server_.Command({"CLIENT", "UNPAUSE"}), "OK");
    writer.join();  // bounded: by the control connection's timeout
    reader.join();  // and by the command timeout
    EXPECT_EQ(renamed, "OK");
    EXPECT_EQ(status, FarmStore::GetStatus::kCorrupt);
    EXPECT_EQ(Count(jx::farm::GetCounters().corrupt), corrupt + 1);
    const FarmStore::Fetched got = store.Get(id);
    EXPECT_EQ(got.status, FarmStore::GetStatus::kHit);
    EXPECT_TRUE(got.payload == Bytes(guid, 1024));
    server_.Command({"DEL", key, spare});
  }
}

// Options for a pool of a server on loopback `port`, `timeout` to connect and for each command.
jx::farm::RedisPool::Options LoopbackOptions(int port, std::chrono::milliseconds timeout) {
  jx::farm::RedisPool::Options options;
  std::string why;
  EXPECT_TRUE(
      jx::farm::ParseAddress("redis://127.0.0.1:" + std::to_string(port), &options.address, &why))
      << why;
  options.connectTimeout = options.commandTimeout = timeout;
  return options;
}

// A listening TCP socket on a loopback port of the system's choosing: its descriptor, and the
// port in *port (0 when it could not listen).
int ListenOnLoopback(int backlog, int* port) {
  *port = 0;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(a);
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
      listen(fd, backlog) == 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length) == 0) {
    *port = ntohs(a.sin_port);
  }
  return fd;
}

// A loopback server that answers a connection's first command with `pieces`, `gap` apart, and
// closes it: a reply malformed, cut off, or dribbled out slower than any single read's timeout.
class FakeServer {
 public:
  FakeServer(std::vector<std::string> pieces, std::chrono::milliseconds gap)
      : pieces_(std::move(pieces)), gap_(gap) {
    listener_ = ListenOnLoopback(4, &port_);
    if (port_ == 0) return;
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeServer() {
    stop_ = true;
    shutdown(listener_, SHUT_RDWR);
    close(listener_);
    if (thread_.joinable()) thread_.join();
  }
  int Port() const { return port_; }

 private:
  void Serve() {
    const int c = accept(listener_, nullptr, nullptr);
    if (c < 0) return;
    char request[256];
    if (read(c, request, sizeof(request)) > 0) {
      for (const std::string& piece : pieces_) {
        if (stop_ || write(c, piece.data(), piece.size()) < 0) break;
        std::this_thread::sleep_for(gap_);
      }
    }
    close(c);
  }

  const std::vector<std::string> pieces_;
  const std::chrono::milliseconds gap_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Whatever comes back on the wire, a command ends within its timeout as a fault, never as a reply
// of the wrong shape, nor later because bytes keep trickling in.
TEST(FarmWireTest, BadOrSlowRepliesAreFaultsWithinTheCommandTimeout) {
  std::vector<std::string> dribble = {"$40\r\n"};
  for (int i = 0; i < 40; ++i) dribble.push_back("x");  // 4 s in all, 100 ms a byte
  dribble.push_back("\r\n");
  const struct {
    const char* what;
    std::vector<std::string> pieces;
    jx::farm::Fault fault;
  } cases[] = {
      {"not the protocol", {"hello there\r\n"}, jx::farm::Fault::kConnection},
      {"cut off", {"$100\r\nabc"}, jx::farm::Fault::kConnection},
      {"dribbled out", dribble, jx::farm::Fault::kTimeout},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FakeServer server(c.pieces, std::chrono::milliseconds(100));
    ASSERT_NE(server.Port(), 0);
    jx::farm::RedisPool pool(LoopbackOptions(server.Port(), std::chrono::milliseconds(300)));
    const auto start = Clock::now();
    const jx::farm::Reply r = pool.Command({"GET", "k"});
    EXPECT_EQ(r.fault, c.fault) << jx::farm::DescribeFault(r.fault);
    EXPECT_LT(SecondsSince(start), 1.0);
  }
}

// Most hosts do not ignore SIGPIPE: a write on a pooled connection the server has closed must be
// a fault, not the end of the process. A value beyond the socket buffer takes a second write,
// after the server's reset, which would raise the signal. In a child, which the signal would end.
TEST(FarmWireTest, LargeWriteOnAConnectionTheServerClosedIsAFaultNotABrokenPipe) {
  RedisServer server;
  JX_REDIS_OR_SKIP(server, RedisServer::Listen::kLoopbackPort);
  jx::farm::RedisPool::Options options;
  std::string why;
  ASSERT_TRUE(jx::farm::ParseAddress(server.Address(), &options.address, &why)) << why;
  options.commandTimeout = std::chrono::milliseconds(5000);
  ASSERT_EQ(::signal(SIGPIPE, SIG_DFL), SIG_DFL) << "the test program must not ignore SIGPIPE";
  const auto body = [&] {
    jx::farm::RedisPool pool(options);
    FarmStore store(pool, "node-pipe", {});
    // One idle connection, then the server drops it.
    if (pool.Command({"PING"}).text != "PONG") std::_Exit(10);
    // The pool's one connection is the only one the server drops (the control connection
    // skips itself): the drop really happened.
    if (server.Command({"CLIENT", "KILL", "TYPE", "normal"}) != "1") std::_Exit(11);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // its FIN is in
    const jx::farm::Identity id = FreshIdentity();
    const std::string bytes(6u << 20, 'x');  // one plain value, far beyond a socket buffer
    const uint64_t before = Count(jx::farm::GetCounters().connectionErrors);
    const auto status = store.Put(id, bytes, 0.5);
    // A fault (counted), as the connection was gone; reached at all only without the signal.
    const bool counted = Count(jx::farm::GetCounters().connectionErrors) == before + 1;
    std::_Exit(status == FarmStore::PutStatus::kFault && counted ? 0 : 12);
  };
  EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

// A loopback proxy in front of the test's server that, once, lets through the first command
// whose bytes hold `marker` and then cuts the connection before the server's reply reaches
// the client: the command ran, but the client only sees a dropped connection.
class ReplyDroppingProxy {
 public:
  ReplyDroppingProxy(int serverPort, std::string marker)
      : serverPort_(serverPort), marker_(std::move(marker)) {
    listener_ = ListenOnLoopback(16, &port_);
    if (port_ == 0) return;
    thread_ = std::thread([this] { Serve(); });
  }
  ~ReplyDroppingProxy() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    for (auto& t : pumps_) t.join();
    close(listener_);
  }
  int Port() const { return port_; }
  // Replies held back and connections cut: the fault really happened.
  int Drops() const { return drops_.load(); }

 private:
  void Serve() {
    while (!stop_) {
      pollfd p{listener_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      const int c = accept(listener_, nullptr, nullptr);
      if (c >= 0) pumps_.emplace_back([this, c] { Pump(c); });
    }
  }
  void Pump(int client) {
    const int server = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(serverPort_));
    bool dropping = false;
    std::string seen;
    if (connect(server, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) {
      char buffer[65536];
      while (!stop_) {
        pollfd fds[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
        if (poll(fds, 2, 50) <= 0) continue;
        if (fds[0].revents) {
          const ssize_t n = read(client, buffer, sizeof(buffer));
          if (n <= 0) break;
          if (!dropping && armed_) {
            seen.append(buffer, static_cast<size_t>(n));
            if (seen.find(marker_) != std::string::npos && armed_.exchange(false)) {
              dropping = true;
              ++drops_;
            }
          }
          if (!WriteAll(server, buffer, static_cast<size_t>(n))) break;
        }
        if (fds[1].revents) {
          const ssize_t n = read(server, buffer, sizeof(buffer));
          if (n <= 0 || dropping) break;  // the reply to the marked command goes nowhere
          if (!WriteAll(client, buffer, static_cast<size_t>(n))) break;
        }
      }
    }
    close(server);
    close(client);
  }
  static bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
      const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
      if (n <= 0) return false;
      data += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }

  const int serverPort_;
  const std::string marker_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<bool> armed_{true};
  std::atomic<int> drops_{0};
  std::thread thread_;
  std::vector<std::thread> pumps_;  // only Serve's thread adds; joined after it ends
};

// A commit whose reply was lost must never leave a value broken. A plain value is whole either way
// (its writer sees a fault); a writer in parts that deleted "its" parts after a lost manifest reply
// would leave a manifest without parts: it asks the server, and counts the value written.
TEST_F(FarmTest, CommitWhoseReplyIsLostLeavesNoBrokenValueBehind) {
  const struct {
    const char* what;
    uint32_t size;
    FarmStore::PutStatus put;
  } cases[] = {
      {"a plain value", 512, FarmStore::PutStatus::kFault},
      {"a value in parts", 4096, FarmStore::PutStatus::kWritten},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    // Every SET NX is a commit; the parts go with a plain SET.
    ReplyDroppingProxy proxy(server_.Port(), "\r\n$2\r\nNX\r\n");
    ASSERT_NE(proxy.Port(), 0);
    jx::farm::RedisPool pool(LoopbackOptions(proxy.Port(), std::chrono::milliseconds(3000)));
    FarmStore writer(pool, "node-writer", {.partBytes = 1024});
    const Guid guid = Guid::CreateUnique();
    const auto id = IdentityOf(guid, c.size);
    const uint64_t connectionErrors = Count(jx::farm::GetCounters().connectionErrors);
    EXPECT_EQ(writer.Put(id, Bytes(guid, c.size), 0.5), c.put);
    EXPECT_EQ(proxy.Drops(), 1);
    EXPECT_EQ(Count(jx::farm::GetCounters().connectionErrors), connectionErrors + 1);
    // The commit is on the server.
    EXPECT_EQ(server_.Command({"EXISTS", jx::farm::KeyOf(id)}), "1");
    // Whatever the writer believes, a reader finds the whole value.
    const FarmStore::Fetched got = Store().Get(id);
    EXPECT_EQ(got.status, FarmStore::GetStatus::kHit)
        << "status " << static_cast<int>(got.status) << ", missing parts "
        << Count(jx::farm::GetCounters().missingParts);
    EXPECT_TRUE(got.payload == Bytes(guid, c.size));
  }
}

std::atomic<int> gSigpipesHandled{0};

// A SIGPIPE sent to the process during a write is the host's, not the library's to swallow. Only
// the writing thread leaves SIGPIPE unblocked, so the signal waits for its mask to open; the
// server never reads, so the write waits out the command timeout with the signal due mid-write.
TEST(FarmWireTest, ASigpipeSentToTheProcessDuringAWriteStillReachesTheHostsHandler) {
  int port = 0;
  const int listener = ListenOnLoopback(4, &port);
  ASSERT_NE(port, 0);
  const auto options = LoopbackOptions(port, std::chrono::milliseconds(1500));

  struct sigaction handler {
  }, old{};
  handler.sa_handler = [](int) { gSigpipesHandled.fetch_add(1); };
  sigemptyset(&handler.sa_mask);
  ASSERT_EQ(sigaction(SIGPIPE, &handler, &old), 0);
  gSigpipesHandled = 0;

  std::atomic<bool> sent{false};
  std::thread sender([&] {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    sent = kill(getpid(), SIGPIPE) == 0;
  });
  jx::farm::RedisPool pool(options);
  const std::string big(64u << 20, 'x');  // far beyond what an unread socket buffers
  const auto start = std::chrono::steady_clock::now();
  const auto reply = pool.Command({"SET", "k", big});
  const auto took = std::chrono::steady_clock::now() - start;
  sender.join();
  const int handled = gSigpipesHandled.load();  // the mask is back: anything pending has run
  sigaction(SIGPIPE, &old, nullptr);
  close(listener);

  ASSERT_TRUE(sent);
  ASSERT_EQ(reply.fault, jx::farm::Fault::kTimeout) << "the write did not wait: nothing tested";
  ASSERT_GT(took, std::chrono::milliseconds(400)) << "the signal came after the write";
  EXPECT_EQ(handled, 1) << "a SIGPIPE sent to the process during a farm write was swallowed";
}

}  // namespace
