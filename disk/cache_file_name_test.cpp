// Disk cache file names: what the writer builds is what the reader gets back, and names that
// are not ours are told apart with the right reason.
#include "disk/cache_file_name.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "host/safe_save.h"

using jx::disk::CacheFileName;
using jx::disk::CacheFileNameError;
using jx::disk::MakeCacheFileName;
using jx::disk::ParseCacheFileName;
using zelcore::utility::Guid;

namespace {

const Guid kGuid = Guid::Parse("0123ABCD-0123-4567-89AB-CDEF01234567");
const std::string kGuidText = "0123ABCD-0123-4567-89AB-CDEF01234567";

TEST(CacheFileNameTest, BuildsAndParsesBackEveryField) {
  struct Case {
    std::vector<uint8_t> header;
    uint32_t version;
    std::string expected;
  };
  const Case cases[] = {
      // An empty header leaves the fourth field empty.
      {{}, 1, kGuidText + ".TestPayload.1..kqcache"},
      // 0xFF bytes encode as "/////w==": every "/" must become "-" and come back.
      {{0xFF, 0xFF, 0xFF, 0xFF}, 0xABC, kGuidText + ".TestPayload.ABC.-----w==.kqcache"},
      {{1, 2, 3}, 0x7FFFFFFF, kGuidText + ".TestPayload.7FFFFFFF.AQID.kqcache"},
      {{0}, 0, kGuidText + ".TestPayload.0.AA==.kqcache"},
      {{0}, 0x100, kGuidText + ".TestPayload.100.AA==.kqcache"},
  };
  for (const Case& c : cases) {
    const std::string name =
        MakeCacheFileName(kGuid, "TestPayload", c.version, c.header.data(), c.header.size());
    EXPECT_EQ(name, c.expected);
    CacheFileName parsed;
    ASSERT_EQ(ParseCacheFileName(name, &parsed), CacheFileNameError::kNone) << name;
    EXPECT_EQ(parsed.guid, kGuid);
    EXPECT_EQ(parsed.matchName, "TestPayload");
    EXPECT_EQ(parsed.version, c.version);
    EXPECT_EQ(parsed.header, c.header) << name;
  }
  // Written upper case, but a lower-case version still reads as the same number.
  CacheFileName parsed;
  ASSERT_EQ(ParseCacheFileName(kGuidText + ".TestPayload.abc..kqcache", &parsed),
            CacheFileNameError::kNone);
  EXPECT_EQ(parsed.version, 0xABCu);
}

TEST(CacheFileNameTest, TellsForeignNamesApart) {
  const std::string good = kGuidText + ".TestPayload.1.AQID.kqcache";
  const struct {
    std::string name;
    CacheFileNameError error;
  } cases[] = {
      {good + ".4711.3.tmp", CacheFileNameError::kTempFile},
      {kGuidText + ".TestPayload.1", CacheFileNameError::kTooFewFields},
      {"", CacheFileNameError::kTooFewFields},
      {kGuidText + ".TestPayload.1.AQID", CacheFileNameError::kNotACacheFile},
      {kGuidText + ".TestPayload.1.AQID.kqcachex", CacheFileNameError::kNotACacheFile},
      {good + ".bak", CacheFileNameError::kNotACacheFile},
      {kGuidText + ".TestPayload.1.AQID.kqcache.x.kqcache", CacheFileNameError::kNotACacheFile},
      {"not-a-guid.TestPayload.1.AQID.kqcache", CacheFileNameError::kBadGuid},
      {"00000000-0000-0000-0000-000000000000.TestPayload.1.AQID.kqcache",
       CacheFileNameError::kBadGuid},
      {kGuidText + "..1.AQID.kqcache", CacheFileNameError::kBadMatchName},
      {kGuidText + ".TestPayload.1G.AQID.kqcache", CacheFileNameError::kBadVersion},
      {kGuidText + ".TestPayload.100000000.AQID.kqcache", CacheFileNameError::kBadVersion},
      {kGuidText + ".TestPayload..AQID.kqcache", CacheFileNameError::kBadVersion},
      {kGuidText + ".TestPayload.1.AQI.kqcache", CacheFileNameError::kBadHeader},
      {kGuidText + ".TestPayload.1.AQ_D.kqcache", CacheFileNameError::kBadHeader},
  };
  for (const auto& c : cases) {
    CacheFileName parsed;
    EXPECT_EQ(ParseCacheFileName(c.name, &parsed), c.error)
        << c.name << " -> " << jx::disk::DescribeCacheFileNameError(c.error);
  }
  // The temporary names SafeSave really makes are recognised too.
  zelcore::filesupport::SafeSave save(zelcore::filesupport::File("/nowhere/" + good));
  CacheFileName parsed;
  EXPECT_EQ(ParseCacheFileName(save.GetTempFile().GetName(), &parsed),
            CacheFileNameError::kTempFile);
}

TEST(CacheFileNameTest, RefusesNamesThatCouldNotBeReadBack) {
  const uint8_t header[] = {1};
  EXPECT_THROW(MakeCacheFileName(Guid(), "TestPayload", 1, header, 1), std::invalid_argument);
  EXPECT_THROW(MakeCacheFileName(kGuid, "", 1, header, 1), std::invalid_argument);
  EXPECT_THROW(MakeCacheFileName(kGuid, "Test.Payload", 1, header, 1), std::invalid_argument);
  EXPECT_THROW(MakeCacheFileName(kGuid, "Test/Payload", 1, header, 1), std::invalid_argument);
}

}  // namespace
