// A count of files and their bytes, for the tool's folder listings (inspect, stats), and its
// JSON form; how many names a listing spells out before it only counts.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>

namespace jx::tool {

inline constexpr size_t kNamesListed = 20;

struct Tally {
  uint64_t files = 0, bytes = 0;
  void Add(uint64_t size) {
    ++files;
    bytes += size;
  }
};

inline nlohmann::ordered_json TallyJson(const Tally& t) {
  return {{"files", t.files}, {"bytes", t.bytes}};
}

}  // namespace jx::tool
