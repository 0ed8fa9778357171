// OpenImageIO's ImageCache, the field's in-process image cache: get_tile + release_tile on a
// cached tile, against the cache's own hit path in the same run.
#include <OpenImageIO/imagecache.h>
#include <OpenImageIO/imageio.h>
#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <cstdio>
#include <random>
#include <string>

namespace {

constexpr int kTile = 16;

// A tiled image with `tiles` tiles, written once to the temporary folder.
std::string MakeTiledImage(int tilesPerSide) {
  std::string path =
      std::string(P_tmpdir) + "/jxcache_bench_tiles_" + std::to_string(tilesPerSide) + ".tif";
  const int side = tilesPerSide * kTile;
  auto out = OIIO::ImageOutput::create(path);
  OIIO::ImageSpec spec(side, side, 4, OIIO::TypeDesc::UINT8);
  spec.tile_width = kTile;
  spec.tile_height = kTile;
  if (!out || !out->open(path, spec)) return {};
  std::vector<unsigned char> pixels(static_cast<size_t>(side) * side * 4, 7);
  out->write_image(OIIO::TypeDesc::UINT8, pixels.data());
  out->close();
  return path;
}

void BM_OiioGetTileHit(benchmark::State& state) {
  static OIIO::ImageCache* cache;
  static std::string path;
  const int tilesPerSide = state.range(0) == 10000 ? 100 : 316;
  if (state.thread_index() == 0) {
    path = MakeTiledImage(tilesPerSide);
    if (!cache) cache = OIIO::ImageCache::create(false);
    cache->attribute("max_memory_MB", 4096.0f);
    cache->attribute("autotile", 0);
    // Warm: every tile once.
    OIIO::ustring name(path);
    for (int y = 0; y < tilesPerSide; ++y) {
      for (int x = 0; x < tilesPerSide; ++x) {
        if (auto* t = cache->get_tile(name, 0, 0, x * kTile, y * kTile, 0)) cache->release_tile(t);
      }
    }
  }
  if (path.empty()) {
    state.SkipWithError("could not write the test image");
    return;
  }
  OIIO::ustring name(path);
  std::mt19937 rng(17 + state.thread_index());
  std::vector<std::pair<int, int>> coords(jx::bench::kRequestRing);
  for (auto& c : coords)
    c = {static_cast<int>(rng() % tilesPerSide) * kTile,
         static_cast<int>(rng() % tilesPerSide) * kTile};
  size_t i = 0, hits = 0;
  for (auto _ : state) {
    auto& c = coords[i++ & (jx::bench::kRequestRing - 1)];
    auto* tile = cache->get_tile(name, 0, 0, c.first, c.second, 0);
    if (tile) {
      ++hits;
      cache->release_tile(tile);
    }
  }
  if (hits != static_cast<size_t>(state.iterations())) state.SkipWithError("a tile missed");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OiioGetTileHit)->Arg(10000)->Arg(100000)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
