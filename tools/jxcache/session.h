// The compositing session behind `jxcache simulate`: a timeline of frames played in passes by a
// few render threads through the library's real API, with the stand-in host keeping the cache
// inside a memory budget.
//
// A pass is a list of frame requests (forward playback, or a scrub: random jumps around a playhead
// that moves through the timeline). The render threads take the next request from the list, ask
// the cache for the frame with find-or-create (read-only, create a pending item, wait for one),
// render it when they created it and otherwise use what the cache gave them: from memory, or
// read back from the disk cache. A thread that asks for a frame another thread is rendering waits
// for that render instead of repeating it. After each render and check-in the host checks its
// budget and, when the cache has passed it, asks the bag to free the excess.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "jxcache/lifecycle/miss_reasons.h"
#include "tools/jxcache/run_info.h"
#include "tools/jxcache/time_series.h"

namespace jx::tool {

struct SimulateOptions {
  uint32_t frames = 240;
  uint32_t width = 1280;
  uint32_t height = 720;
  uint32_t threads = 2;
  uint64_t memoryBudget = 256ull << 20;
  std::string diskFolder;  // empty: the default folder under the temporary directory
  uint64_t diskLimit = 2ull << 30;
  bool noDisk = false;
  // The host's "Proclivity Multiplier 2" disk cache preference (the write rule divides the
  // measured read speed by it: below 1 writes more); 0 leaves it unset, at the library's default.
  double diskProclivity = 0.0;
  // The host's "Minimum Volume Free Space (Gigabytes)" preference: writes stop before the
  // volume's free space falls below it. Negative leaves it unset, at the library's default.
  int64_t diskMarginGiB = -1;
  uint32_t passes = 3;
  uint64_t seed = 1;
  // Frames the forward passes read ahead of the playhead (0: none), and the share of the budget
  // the read-ahead may hold.
  uint32_t readAhead = 16;
  double readAheadShare = 0.25;
  // Playback pace in frames per second: request i of a pass is made at i/fps seconds and is due
  // on screen one frame later. 0 plays as fast as the cache and renders allow.
  double fps = 0.0;
  // Take content maps of the cache through the run (for the HTML report's content strips).
  bool contentMaps = false;
  // The farm tier (session_farm.h): an empty address and limits left unset are the settings
  // table's. A limit of 0 is a value (a TTL of 0 keeps frames for ever).
  std::string farmAddress;
  std::string farmNode;
  std::optional<uint32_t> farmCommandTimeoutMs, farmLeaseMs, farmLeaseWaitMs, farmTtlSeconds;
};

// How a request was served. A request that waited for another thread's render counts as a
// memory hit: it rendered nothing and read nothing.
// A farm hit is a frame another node rendered, fetched from the farm tier.
enum class Outcome : uint8_t { kMemoryHit = 0, kDiskHit = 1, kRendered = 2, kFarmHit = 3 };

struct PassResult {
  std::string kind;               // "forward" or "scrub"
  std::vector<uint32_t> frames;   // the requests, in order
  std::vector<Outcome> outcomes;  // per request
  uint64_t memoryHits = 0, diskHits = 0, renders = 0;
  uint64_t farmHits = 0;
  uint64_t waitedForOtherRender = 0;  // memory hits that waited for another thread's render
  // Frames checked against the image, and those whose pixels did not match it. Every frame served
  // is checked, rendered or not; a bad one found in the cache is dropped from it, with its file,
  // and rendered again (and checked again).
  uint64_t framesChecked = 0, badFrames = 0;
  // Requests whose read back from disk failed (a damaged or vanished file): asked again, they
  // were served like a miss.
  uint64_t failedReads = 0;
  // Paced playback only: frames served after their display time.
  uint64_t lateFrames = 0;
  double seconds = 0.0;
  uint64_t Requests() const { return frames.size(); }
};

struct Sample {
  double seconds;   // since the session started
  uint64_t memory;  // bytes the cache holds in memory
  uint64_t disk;    // bytes of the disk cache
  uint32_t pass;    // index of the pass running
};

// What the cache held of one frame at a moment: its payload in memory, on disk only, both,
// being rendered, or nothing.
enum class FrameState : uint8_t {
  kAbsent = 0,
  kInMemory = 1,
  kOnDiskOnly = 2,
  kBoth = 3,
  kPending = 4
};

// A content map of the cache taken during the run, reduced to the timeline's frames.
struct ContentMoment {
  double seconds = 0;  // since the session started
  uint32_t pass = 0;
  uint64_t requestsDone = 0;  // of that pass, when taken
  bool passEnded = false;
  std::vector<FrameState> frames;  // per frame of the timeline
  uint64_t items = 0;              // items in the map, frames or not
  uint64_t snapshotNanos = 0, maxLockHoldNanos = 0;
};

// A subsystem the session uses; when it is not part of this build, its figures are absent.
struct Availability {
  bool available = false;
  std::string why;  // when not available
};

// What the farm tier did for this node (session_farm.h).
struct FarmFigures {
  bool used = false;
  std::string address, node;
  uint32_t connectTimeoutMs = 0, commandTimeoutMs = 0, leaseMs = 0, leaseWaitMs = 0;
  uint32_t ttlSeconds = 0;
  uint64_t hits = 0, misses = 0, writes = 0, duplicateWrites = 0, corrupt = 0, missingParts = 0;
  uint64_t leaseWaits = 0, leaseTakeovers = 0, leaseWaitsGivenUp = 0, notWorthSharing = 0;
  uint64_t errors = 0, timeouts = 0, bytesRead = 0, bytesWritten = 0;
  bool writesLeftUnfinished = false;  // the run ended before its last farm writes did
};

// What the read-ahead of the forward passes did, over all of them (JX_ReadAheadCounters).
struct ReadAheadFigures {
  bool used = false;
  uint64_t prefetched = 0, prefetchedBytes = 0, hitsOnPrefetched = 0, wasted = 0;
  uint64_t notInCache = 0, failedReads = 0, jumps = 0, stoppedAtShare = 0;
  double readSeconds = 0.0;
  // Bytes per second: the read-ahead's reads back (allocation and checksum included), and plain
  // reads of the same folder's files at the end of the run (0 when there was nothing to read).
  double readRate = 0.0, rawReadRate = 0.0;
};

struct SessionResult {
  SimulateOptions options;
  uint64_t frameBytes = 0;
  std::vector<PassResult> passes;
  std::vector<Sample> samples;
  double seconds = 0.0;
  // Memory.
  uint64_t peakMemory = 0;
  uint64_t purges = 0;       // times the host asked the bag to free memory
  uint64_t bytesPurged = 0;  // what the bag reported freeing
  uint64_t renderMicrosTotal = 0;
  // Renders by what the cache held of the frame at that moment (see FrameLedger).
  uint64_t firstRenders = 0, rendersAfterPurge = 0, rendersWhileInMemory = 0;
  // Disk cache.
  Availability disk;
  std::string diskFolder;
  uint64_t diskFilesAtStart = 0, diskBytesAtStart = 0;
  uint64_t filesWritten = 0, bytesWritten = 0, filesRead = 0, bytesRead = 0;
  uint64_t failedWrites = 0, failedReads = 0;
  // The write decisions: queued, or refused and why. A payload's no-disk reason 3 is a full write
  // queue and 5 "reconsider later"; 1, 2 and 4 are reasons a host may give (this one never does).
  uint64_t writeRequests = 0;
  uint64_t notWorthWriting = 0;  // the write rule: reading back would be no faster than rendering
  uint64_t refusedForReason[6] = {};    // index 1..5: by the payload's no-disk reason
  uint64_t writesSkipped = 0;           // queued, but the file was already there or being written
  uint64_t writesSkippedForRoom = 0;    // queued, but the folder could not make room in its limit
  uint64_t writesSkippedForVolume = 0;  // queued, but the volume would drop below its margin
  uint64_t diskBytesAtEnd = 0;
  // Plug-in compute cache and media map.
  Availability compute;
  uint64_t computeCalls = 0, computes = 0, computeHits = 0, computeFailures = 0;
  Availability mediaMap;
  uint64_t hostMediaBytes = 0;      // the host's own media in the pool, at the start
  uint64_t hostMediaLeft = 0;       // what the pool still held of it at the end
  uint64_t mediaMapBytes = 0;       // what the cache mirrored into the pool at the end
  uint64_t mediaManagerPurges = 0;  // entries the media manager took back from the cache
  // The library's look-ups that missed during the run, by reason: all together ("all") and per
  // payload class. Its look-ups are not the tool's requests: a render asks the cache more than
  // once (the frame, the plug-in's histogram).
  JX_MissReasons missReasons;
  std::vector<JX_MissReasons> missReasonsByClass;
  // The run as it went, for the report's charts and the JSON (see time_series.h for the bounds).
  std::vector<SeriesSample> series;
  double seriesInterval = 0;  // the spacing the series ended with, in seconds
  std::vector<PurgeEvent> purgeEvents;
  std::vector<double> renderMs;  // render times: every one, or a uniform sample of them
  uint64_t renderTimesSeen = 0;  // renders timed, sampled or not
  // With contentMaps: a few moments within each pass and one at its end, oldest first.
  std::vector<ContentMoment> contentMoments;
  // Filled by the caller: RunSession knows nothing of the command line.
  RunInfo run;
  FarmFigures farm;
  ReadAheadFigures readAhead;
};

// The time series' spacing at the start, and the most samples, purge events and render times a
// session keeps.
inline constexpr double kSeriesInterval = 0.1;
inline constexpr size_t kMaxSeriesSamples = 2048;
inline constexpr size_t kMaxPurgeEvents = 512;
inline constexpr size_t kMaxRenderTimes = 20000;
// Content maps taken within a pass (at even shares of its requests), and the most in a run.
inline constexpr uint32_t kContentMomentsWithinPass = 3;
inline constexpr size_t kMaxContentMoments = 64;

// Called from the main thread about every 100 ms while a pass runs: pass index, requests done.
using ProgressFn = std::function<void(const SessionResult&, uint32_t pass, uint64_t done)>;

// Called from the main thread about every 10 ms while the session waits for the disk writes
// still queued after the last pass: how many of the `total` queued when the wait began have gone.
using DrainFn = std::function<void(uint64_t gone, uint64_t total)>;

// Runs the whole session; the library is born and dies inside. Throws ToolError when the disk
// cache folder is unusable or a render thread fails.
SessionResult RunSession(const SimulateOptions& options, const ProgressFn& progress,
                         const DrainFn& drain = {});

// The request list of pass `index` (0-based): forward for the first two, scrubs after.
std::vector<uint32_t> PassFrames(uint32_t index, uint32_t frames, uint64_t seed, std::string* kind);

// The requests of a pass of `total` that the read-ahead is told come after the playhead, the
// oldest request still being served, once request `newest` is asked for: up to `count` past
// `newest`, nearest first, less those `served` already.
std::vector<size_t> RequestsAhead(size_t playhead, size_t newest, size_t count, size_t total,
                                  const std::vector<std::atomic<bool>>& served);

}  // namespace jx::tool
