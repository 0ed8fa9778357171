#include "tools/jxcache/session.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <utility>

#include "jxcache/disk/read_ahead.h"
#include "jxcache/farm/farm_compute.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "jxcache/lifecycle/statistics.h"
#include "standalone/standalone_host.h"
#include "tools/jxcache/frame_payload.h"
#include "tools/jxcache/histogram_plugin.h"
#include "tools/jxcache/host_media.h"
#include "tools/jxcache/library_run.h"
#include "tools/jxcache/session_content.h"
#include "tools/jxcache/session_disk.h"
#include "tools/jxcache/session_farm.h"
#include "tools/jxcache/tool_error.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using zelcore::utility::HighPrecisionTime;
using zelcore::utility::IntrusivePtr;

namespace jx::tool {
namespace {

// The stand-in host's side of the session: the memory budget and its bookkeeping.
class BudgetKeeper {
 public:
  BudgetKeeper(JX_Bag& bag, uint64_t budget, const RV::MediaManager& media,
               const zelcore::utility::Timer& clock)
      : bag_(bag), budget_(budget), media_(media), clock_(clock) {}

  // Makes room for `incoming` bytes about to be allocated (a render, a disk read): when the
  // cache plus every allocation under way would pass the budget, asks the bag to free the excess.
  // One purge at a time: the amount to purge is host-wide.
  void Reserve(uint64_t incoming) {
    std::lock_guard<std::mutex> l(mutex_);
    reserved_ += incoming;
    PurgeExcessLocked();
  }
  // The reserved bytes are now in the cache (or were never used); checks the budget again.
  void Release(uint64_t incoming) {
    NotePeak();
    std::lock_guard<std::mutex> l(mutex_);
    reserved_ -= incoming;
    PurgeExcessLocked();
  }
  void NotePeak() {
    const uint64_t held = Held();
    uint64_t peak = peak_.load(std::memory_order_relaxed);
    while (held > peak && !peak_.compare_exchange_weak(peak, held)) {
    }
  }
  // What the budget covers: the cache's memory and the host's own media.
  uint64_t Held() const {
    return static_cast<uint64_t>(std::max(0LL, bag_.GetInMemoryCacheSizeInBytes_LockFree())) +
           media_.GetHostMediaBytes();
  }
  uint64_t Peak() const { return peak_.load(); }
  uint64_t Purges() const { return purges_; }
  // Call once the render threads are done.
  const std::vector<PurgeEvent>& PurgeEvents() const { return purgeLog_.Events(); }

 private:
  void PurgeExcessLocked() {
    const uint64_t want = Held() + reserved_;
    if (want <= budget_) return;
    // What this purge freed, as the host counts it: the same figure as the session's total.
    auto& host = StandaloneHost::Instance();
    const uint64_t freedBefore = host.GetRecycledMemoryPurged();
    jx::PurgeOverBudget(bag_, want - budget_);
    ++purges_;
    purgeLog_.Add(clock_.GetElapsedSeconds(), host.GetRecycledMemoryPurged() - freedBefore);
  }

  JX_Bag& bag_;
  const uint64_t budget_;
  const RV::MediaManager& media_;
  const zelcore::utility::Timer& clock_;
  std::mutex mutex_;
  uint64_t reserved_ = 0;               // guarded by mutex_
  uint64_t purges_ = 0;                 // guarded by mutex_
  PurgeLog purgeLog_{kMaxPurgeEvents};  // guarded by mutex_
  std::atomic<uint64_t> peak_{0};
};

// Holds a reservation of the budget for the life of the scope.
class ScReservation {
 public:
  ScReservation(BudgetKeeper& budget, uint64_t bytes) : budget_(budget), bytes_(bytes) {
    budget_.Reserve(bytes_);
  }
  ~ScReservation() { budget_.Release(bytes_); }
  ScReservation(const ScReservation&) = delete;
  ScReservation& operator=(const ScReservation&) = delete;

 private:
  BudgetKeeper& budget_;
  const uint64_t bytes_;
};

// One render thread's work on a pass: serve requests until the list is used up.
class PassRunner {
 public:
  // `readAhead`: null, or the read-ahead this pass tells where its playhead is.
  PassRunner(const SimulateOptions& o, BudgetKeeper& budget, HistogramPlugin& plugin,
             FrameLedger& ledger, RenderTimes& renderTimes, PassResult& pass,
             JX_ReadAhead* readAhead)
      : o_(o),
        budget_(budget),
        plugin_(plugin),
        ledger_(ledger),
        renderTimes_(renderTimes),
        pass_(pass),
        readAhead_(readAhead),
        frameBytes_(uint64_t{o.width} * o.height * 4),
        serving_(o.threads),
        served_(pass.frames.size()) {
    for (auto& s : serving_) s.store(kNone);
  }

  void Work() {
    std::atomic<size_t>& serving = serving_.at(threadsStarted_.fetch_add(1));
    for (;;) {
      // A bound first, then the request: a thread placing the playhead between the two finds
      // an earlier frame held for this one, never none.
      serving.store(next_.load());
      const size_t i = next_.fetch_add(1);
      if (i >= pass_.frames.size()) break;
      serving.store(i);
      // Paced: the viewer asks for request i at i/fps and shows it one frame later.
      const auto due = start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                    std::chrono::duration<double>(o_.fps > 0 ? i / o_.fps : 0));
      if (o_.fps > 0) std::this_thread::sleep_until(due);
      if (readAhead_) AnnouncePlayhead(i);
      const Outcome outcome = Serve(pass_.frames[i]);
      if (o_.fps > 0 && std::chrono::steady_clock::now() >
                            due + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                      std::chrono::duration<double>(1.0 / o_.fps))) {
        late.fetch_add(1, std::memory_order_relaxed);
      }
      pass_.outcomes[i] = outcome;
      serving.store(kNone);  // checked in: the read-ahead may let go of it
      // After: a playhead is a request still being served, never one the plan before it left out.
      served_[i].store(true, std::memory_order_release);
      // Requests done in the high half, hits in the low: one add, so that a reader never sees
      // a hit without its request.
      progress_.fetch_add(kOneDone | (outcome != Outcome::kRendered ? 1u : 0u),
                          std::memory_order_relaxed);
    }
    serving.store(kNone);
  }
  uint64_t Done() const { return progress_.load(std::memory_order_relaxed) >> 32; }
  // Requests done and hits among them, read together.
  std::pair<uint64_t, uint64_t> DoneAndHits() const {
    const uint64_t v = progress_.load(std::memory_order_relaxed);
    return {v >> 32, v & 0xFFFFFFFFu};
  }
  std::atomic<uint64_t> waited{0}, checked{0}, badFrames{0}, failedReads{0}, renderMicros{0};
  std::atomic<uint64_t> late{0};

 private:
  IntrusivePtr<JX_Stuff> Request(uint32_t frame) const {
    IntrusivePtr<JX_Stuff> request = JX_Stuff::CreateNew(
        IntrusivePtr<JX_StuffData>(new FramePayload(o_.width, o_.height, frame)), 0.0);
    request->SetGuid(FramePayload::KeyOf(o_.width, o_.height, frame));
    return request;
  }

  // The playhead has reached request i: the read-ahead gets the frames after it. The render
  // threads reach the requests nearly in order; one that comes late to an earlier request says
  // nothing, which would move the playhead back. One announcement at a time, the plan made and
  // handed over together: a thread descheduled between the two would hand over its older plan
  // after a newer one, a step back that counted as a jump and let go of frames the newer plan
  // had asked for.
  void AnnouncePlayhead(size_t i) {
    std::lock_guard<std::mutex> l(announceMutex_);
    if (announced_ != kNone && announced_ >= i) return;
    announced_ = i;
    // The playhead, the frame on screen, is the oldest request a render thread is still
    // serving: the read-ahead keeps holding it. A thread late to its request (descheduled
    // between taking it and asking for it) must not find its frame let go, and counted as a
    // wasted read, before it has used it.
    size_t head = i;
    for (const std::atomic<size_t>& s : serving_) head = std::min(head, s.load());
    std::vector<IntrusivePtr<JX_Stuff>> ahead;
    for (size_t k : RequestsAhead(head, i, o_.readAhead, pass_.frames.size(), served_))
      ahead.push_back(Request(pass_.frames[k]));
    readAhead_->SetPlayhead(Request(pass_.frames[head]), 1, std::move(ahead));
  }

  Outcome Serve(uint32_t frame) {
    IntrusivePtr<JX_Stuff> request = Request(frame);
    const uint64_t askedAt = HighPrecisionTime::GetCurrentTimeStamp();
    // Disk reads are done here, outside the find, so that a disk hit can be told from the rest.
    const int flags = cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways | cf::kNoDiskRead;
    for (int attempt = 0;; ++attempt) {
      JX_ScCheckout handle;
      const JX_CheckoutResult r = handle.FindAndCheckout(request, flags);
      if (r == kJX_CreatedPending) return RenderInto(handle, frame);
      if (r == kJX_CheckedOut && ReadyToUse(handle)) {
        Outcome outcome = Outcome::kMemoryHit;
        if (!handle.IsInMemory()) {
          ScReservation room(budget_, frameBytes_);
          const uint64_t readsBefore = FramePayload::ReadsOnThisThread();
          const ReadBack read = ReadBackFromDisk(handle);
          // The file is gone either way (the library deletes a file it could not read): asking
          // again finds no copy and renders the frame, or waits for another thread's render.
          if (read == ReadBack::kFailed) failedReads.fetch_add(1, std::memory_order_relaxed);
          if (read != ReadBack::kRead) continue;
          // Another thread may have read it back while we asked: then it came from memory.
          if (FramePayload::ReadsOnThisThread() != readsBefore) outcome = Outcome::kDiskHit;
        }
        if (!Use(handle, askedAt, outcome)) {
          // Counted as bad; the viewer is not left with it. Out of the cache with its file, and
          // rendered again: a render the ledger must not take for one of a frame in memory.
          IntrusivePtr<JX_Stuff> item = handle.GetStuffPtr();
          if (auto* bad = dynamic_cast<FramePayload*>(item ? item->GetDataPtr().get() : nullptr))
            bad->Disown();
          handle.Checkin(ci::kRemove, 0.0);
          continue;
        }
        handle.Checkin(0, 0.0);
        budget_.Release(0);
        return outcome;
      }
      // Refused, or a render we waited for was abandoned: ask again, a little later each time;
      // a frame that never comes is a failure of the session.
      if (attempt > 100) throw ToolError("frame " + std::to_string(frame) + " never became ready");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  enum class ReadBack { kRead, kFailed, kNothingToRead };

  // Reads the checked-out frame back from its disk file. A file that cannot be read (damaged,
  // emptied, or deleted by another process sharing the folder) is an ordinary event: the library
  // counts it, deletes the file and throws the error on as a bare code, which must not end the
  // session. kNothingToRead: another thread's read of the same file failed first.
  static ReadBack ReadBackFromDisk(JX_ScCheckout& handle) {
    try {
      return handle.EnsureInMemory() ? ReadBack::kRead : ReadBack::kNothingToRead;
    } catch (...) {
      return ReadBack::kFailed;
    }
  }

  // The find has already waited for a render under way (this thread holds no lock, so it may
  // wait); should it ever hand back an item still pending, wait here rather than use an empty
  // one. False when the render was abandoned.
  static bool ReadyToUse(JX_ScCheckout& handle) {
    IntrusivePtr<JX_Stuff> item = handle.GetStuffPtr();
    if (!item) return false;
    if (item->IsPendingRender()) item->WaitForPendingCompletion();
    return item->GetDataPtr() != nullptr;
  }

  Outcome RenderInto(JX_ScCheckout& handle, uint32_t frame) {
    IntrusivePtr<JX_Stuff> item = handle.GetStuffPtr();
    JX_ScStuffSetter abandonOnThrow(item);
    {
      ScReservation room(budget_, frameBytes_);
      // Another node may have rendered it, or be rendering it now: then it comes from the farm.
      JX_ScFarmCompute farm(item);
      if (farm.Fetch() == JX_ScFarmCompute::kFilledFromFarm) {
        checked.fetch_add(1, std::memory_order_relaxed);
        auto* fetched = dynamic_cast<FramePayload*>(item->GetDataPtr().get());
        if (!fetched || !fetched->Verify()) badFrames.fetch_add(1, std::memory_order_relaxed);
        if (fetched) plugin_.Histogram(*fetched);
        handle.Checkin(0, farm.FetchedComputeSeconds());
        return Outcome::kFarmHit;
      }
      zelcore::utility::Timer timer;
      IntrusivePtr<FramePayload> payload =
          FramePayload::Render(o_.width, o_.height, frame, &ledger_);
      const double seconds = timer.GetElapsedSeconds();
      renderMicros.fetch_add(static_cast<uint64_t>(seconds * 1e6), std::memory_order_relaxed);
      renderTimes_.Add(seconds * 1e3);
      // Checked like every frame served: the figure of bad frames covers all of them.
      checked.fetch_add(1, std::memory_order_relaxed);
      if (!payload->Verify()) badFrames.fetch_add(1, std::memory_order_relaxed);
      item->SetStuffDataFromPendingRender(payload, seconds);
      plugin_.Histogram(*payload);
      handle.Checkin(0, seconds);
      farm.Publish();
    }
    return Outcome::kRendered;
  }

  // What the viewer does with a frame it was given: checks it is the frame it asked for. False
  // (and counted) when it is not.
  bool Use(JX_ScCheckout& handle, uint64_t askedAt, Outcome outcome) {
    IntrusivePtr<JX_Stuff> item = handle.GetStuffPtr();
    auto* frame = dynamic_cast<FramePayload*>(item ? item->GetDataPtr().get() : nullptr);
    checked.fetch_add(1, std::memory_order_relaxed);
    if (!frame || !frame->Verify()) {
      badFrames.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
    plugin_.Histogram(*frame);
    // Finished after we asked, by someone else: we waited for that render.
    if (outcome == Outcome::kMemoryHit && frame->RenderedAt() > askedAt)
      waited.fetch_add(1, std::memory_order_relaxed);
    return true;
  }

  const SimulateOptions& o_;
  BudgetKeeper& budget_;
  HistogramPlugin& plugin_;
  FrameLedger& ledger_;
  RenderTimes& renderTimes_;
  PassResult& pass_;
  JX_ReadAhead* const readAhead_;
  const uint64_t frameBytes_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  static constexpr size_t kNone = ~size_t{0};
  std::mutex announceMutex_;  // held around SetPlayhead, which never waits
  size_t announced_ = kNone;  // guarded by announceMutex_
  std::atomic<size_t> next_{0};
  // Per render thread, the request it is serving (or a bound below it), kNone when none.
  std::vector<std::atomic<size_t>> serving_;
  std::vector<std::atomic<bool>> served_;  // per request
  std::atomic<size_t> threadsStarted_{0};
  // A pass has at most a million requests (the tool's limit on --frames): each half fits.
  static constexpr uint64_t kOneDone = uint64_t{1} << 32;
  std::atomic<uint64_t> progress_{0};
};

// Frames waiting in the disk writer's queues, as the library's statistics report them.
uint64_t WriteQueueLength() {
  uint64_t n = 0;
  for (const JX_Statistic& s : JX_GetStatistics()) {
    if (s.group == "disk" && (s.name == "high_priority_queue" || s.name == "normal_queue"))
      n += static_cast<uint64_t>(std::max<int64_t>(0, s.value));
  }
  return n;
}

// What the library counted between `before` and now, class by class and all together.
void TakeMissReasons(const std::vector<JX_MissReasons>& before, SessionResult* result) {
  result->missReasons = JX_MissReasons{};
  result->missReasons.payloadClass = "all";
  result->missReasonsByClass.clear();
  for (JX_MissReasons row : JX_GetMissReasons()) {
    for (const JX_MissReasons& old : before) {
      if (old.payloadClass != row.payloadClass) continue;
      row.total -= old.total;
      for (int i = 0; i < kJX_MissReasonCount; ++i) row.byReason[i] -= old.byReason[i];
    }
    if (row.total == 0) continue;
    result->missReasons.total += row.total;
    for (int i = 0; i < kJX_MissReasonCount; ++i)
      result->missReasons.byReason[i] += row.byReason[i];
    result->missReasonsByClass.push_back(std::move(row));
  }
}

void Tally(PassResult& pass) {
  for (Outcome o : pass.outcomes) {
    pass.memoryHits += o == Outcome::kMemoryHit;
    pass.diskHits += o == Outcome::kDiskHit;
    pass.renders += o == Outcome::kRendered;
    pass.farmHits += o == Outcome::kFarmHit;
  }
}

// The host's budget as the library sees it: the limit, and what is left of it.
void ConfigureHost(const SimulateOptions& o) {
  auto& host = StandaloneHost::Instance();
  host.SetMemoryLimit(o.memoryBudget);
  const uint64_t budget = o.memoryBudget;
  host.SetAmountAvailableBeforePurgeFunction([budget] {
    const auto bag = JX_GlobalBag();
    const long long held = bag ? std::max(0LL, bag->GetInMemoryCacheSizeInBytes_LockFree()) : 0;
    return budget > static_cast<uint64_t>(held) ? budget - static_cast<uint64_t>(held) : 0;
  });
}

void AddReadAhead(const JX_ReadAheadCounters& c, ReadAheadFigures* f) {
  f->used = true;
  f->prefetched += c.prefetched;
  f->prefetchedBytes += c.prefetchedBytes;
  f->hitsOnPrefetched += c.hitsOnPrefetched;
  f->wasted += c.wasted;
  f->notInCache += c.notInCache;
  f->failedReads += c.failedReads;
  f->jumps += c.jumps;
  f->stoppedAtShare += c.stoppedAtShare;
  f->readSeconds += c.readSeconds;
  f->readRate = f->readSeconds > 0 ? static_cast<double>(f->prefetchedBytes) / f->readSeconds : 0;
}

// Plain reads of up to 32 of the folder's files, the yardstick of the read-ahead's rate: what
// the file system gives without allocation, checksum or cache bookkeeping.
double RawReadRate(const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code ec;
  std::vector<char> buffer(1 << 20);
  uint64_t bytes = 0;
  double seconds = 0;
  int files = 0;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end && files < 32;
       it.increment(ec)) {
    if (!it->is_regular_file(ec) || it->path().extension() == ".tmp") continue;
    std::FILE* f = std::fopen(it->path().c_str(), "rb");
    if (!f) continue;
    zelcore::utility::Timer timer;
    for (size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), f)) > 0;) bytes += n;
    seconds += timer.GetElapsedSeconds();
    std::fclose(f);
    ++files;
  }
  return seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
}

}  // namespace

std::vector<size_t> RequestsAhead(size_t playhead, size_t newest, size_t count, size_t total,
                                  const std::vector<std::atomic<bool>>& served) {
  std::vector<size_t> ahead;
  for (size_t k = playhead + 1; k < std::min(total, newest + 1 + count); ++k) {
    if (!served[k].load(std::memory_order_acquire)) ahead.push_back(k);
  }
  return ahead;
}

std::vector<uint32_t> PassFrames(uint32_t index, uint32_t frames, uint64_t seed,
                                 std::string* kind) {
  std::vector<uint32_t> list(frames);
  if (index < 2) {
    *kind = "forward";
    for (uint32_t f = 0; f < frames; ++f) list[f] = f;
    return list;
  }
  *kind = "scrub";
  std::mt19937_64 rng(seed * 1000003 + index);
  const int reach = static_cast<int>(std::max<uint32_t>(2, frames / 12));
  std::uniform_int_distribution<int> jump(-reach, reach);
  for (uint32_t i = 0; i < frames; ++i) {
    // The playhead advances a frame per request; the viewer jumps around it.
    const int frame = static_cast<int>(i) + jump(rng);
    list[i] = static_cast<uint32_t>(std::clamp(frame, 0, static_cast<int>(frames) - 1));
  }
  return list;
}

SessionResult RunSession(const SimulateOptions& o, const ProgressFn& progress,
                         const DrainFn& drain) {
  SessionResult result;
  result.options = o;
  result.frameBytes = uint64_t{o.width} * o.height * 4;
  SessionDisk disk(o);  // checks the folder before the library starts
  // Outlives the library: the cache purges payloads until it dies.
  FrameLedger ledger(o.frames);
  LibraryRun run(/*mediaMapAllowed=*/true, 1);
  JX_Bag& bag = run.bag();
  FramePayload::RegisterFactory(&ledger);
  ConfigureHost(o);
  HostMedia media(o.memoryBudget, &result);
  disk.Attach(run.bagPtr(), &result);
  SessionFarm farm(o, &result);
  JX_VX_Birth();
  // The counts are the process's: an earlier session in this process is taken off.
  const std::vector<JX_MissReasons> missesBefore = JX_GetMissReasons();
  HistogramPlugin plugin;
  result.compute = {true, ""};
  auto& host = StandaloneHost::Instance();
  const uint64_t purgedBefore = host.GetRecycledMemoryPurged();
  zelcore::utility::Timer clock;
  BudgetKeeper budget(bag, o.memoryBudget, media.Manager(), clock);
  RenderTimes renderTimes(kMaxRenderTimes, o.seed);
  SeriesRecorder series(kSeriesInterval, kMaxSeriesSamples);
  uint64_t doneBefore = 0, hitsBefore = 0;  // over the passes finished
  const PassRunner* running = nullptr;
  auto sample = [&](uint32_t pass, bool passEnded) {
    budget.NotePeak();
    const double now = clock.GetElapsedSeconds();
    const uint64_t memory = budget.Held();
    const uint64_t diskBytes = static_cast<uint64_t>(std::max(0LL, bag.GetCurrentDiskCacheSize()));
    result.samples.push_back({now, memory, diskBytes, pass});
    if (!passEnded && !series.Due(now)) return;
    SeriesSample s{now, pass, doneBefore, hitsBefore, memory, diskBytes, WriteQueueLength()};
    if (running) {
      const auto [done, hits] = running->DoneAndHits();
      s.framesDone += done;
      s.hits += hits;
    }
    series.Offer(s, passEnded);
  };
  sample(0, true);
  ContentMapper contentMaps(o);
  for (uint32_t p = 0; p < o.passes; ++p) {
    contentMaps.StartPass();
    PassResult pass;
    pass.frames = PassFrames(p, o.frames, o.seed, &pass.kind);
    pass.outcomes.assign(pass.frames.size(), Outcome::kMemoryHit);
    // Forward playback reads ahead; a scrub jumps about, which read-ahead cannot foresee.
    std::optional<JX_ReadAhead> readAhead;
    if (pass.kind == "forward" && o.readAhead > 0 && !o.noDisk) {
      JX_ReadAhead::Options ra;
      ra.budgetShare = o.readAheadShare;
      // The host's budget covers the read-ahead's reads as it covers the render threads'.
      ra.beforeRead = [&budget](uint64_t bytes) { budget.Reserve(bytes); };
      ra.afterRead = [&budget](uint64_t bytes) { budget.Release(bytes); };
      readAhead.emplace(std::move(ra));
    }
    PassRunner runner(o, budget, plugin, ledger, renderTimes, pass,
                      readAhead ? &*readAhead : nullptr);
    running = &runner;
    std::exception_ptr failure;
    std::mutex failureMutex;
    std::vector<std::thread> threads;
    zelcore::utility::Timer passClock;
    for (uint32_t t = 0; t < o.threads; ++t) {
      threads.emplace_back([&] {
        try {
          runner.Work();
        } catch (...) {
          std::lock_guard<std::mutex> l(failureMutex);
          if (!failure) failure = std::current_exception();
        }
      });
    }
    // The main thread is the host's: it watches memory and disk while the renders run.
    while (runner.Done() < pass.frames.size() && !failure) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      sample(p, false);
      if (const uint64_t done = runner.Done(); contentMaps.DueWithin(done, pass.frames.size())) {
        contentMaps.Take(bag, clock.GetElapsedSeconds(), p, done, false, &result);
      }
      if (progress && result.samples.size() % 5 == 0) progress(result, p, runner.Done());
    }
    for (auto& t : threads) t.join();
    pass.seconds = passClock.GetElapsedSeconds();
    if (readAhead) {
      readAhead->Stop();  // before the library may die: it holds frames checked out
      AddReadAhead(readAhead->GetCounters(), &result.readAhead);
    }
    if (failure) std::rethrow_exception(failure);
    pass.lateFrames = runner.late.load();
    pass.waitedForOtherRender = runner.waited.load();
    pass.framesChecked = runner.checked.load();
    pass.badFrames = runner.badFrames.load();
    pass.failedReads = runner.failedReads.load();
    result.renderMicrosTotal += runner.renderMicros.load();
    Tally(pass);
    sample(p, true);
    contentMaps.Take(bag, clock.GetElapsedSeconds(), p, pass.Requests(), true, &result);
    running = nullptr;
    doneBefore += pass.Requests();
    hitsBefore += pass.memoryHits + pass.diskHits;
    result.passes.push_back(std::move(pass));
  }
  farm.Finish(&result);
  disk.Finish(&result, drain);
  if (result.readAhead.used && result.disk.available) {
    result.readAhead.rawReadRate = RawReadRate(result.diskFolder);
  }
  result.computeCalls = plugin.Calls();
  result.computes = plugin.Computes();
  result.computeHits = plugin.Hits();
  result.computeFailures = plugin.Failures();
  result.firstRenders = ledger.FirstRenders();
  result.rendersAfterPurge = ledger.RendersAfterPurge();
  result.rendersWhileInMemory = ledger.RendersWhileInMemory();
  media.Finish(&result);
  TakeMissReasons(missesBefore, &result);  // while the library lives
  // After the writer drained: the queue is seen to empty.
  sample(o.passes ? o.passes - 1 : 0, true);
  result.series = series.Samples();
  result.seriesInterval = series.Interval();
  result.purgeEvents = budget.PurgeEvents();
  result.renderTimesSeen = renderTimes.Count();
  result.renderMs = renderTimes.Take();
  result.seconds = clock.GetElapsedSeconds();
  result.peakMemory = budget.Peak();
  result.purges = budget.Purges();
  result.bytesPurged = host.GetRecycledMemoryPurged() - purgedBefore;
  return result;
}

}  // namespace jx::tool
