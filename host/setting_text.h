// How the library reads the texts of its settings: a bool is true only for the text "true";
// numbers that do not parse give the default. The host's settings database hands out texts
// (jx::host::Settings, host/host_services.h).
#pragma once

#include <cstdint>
#include <string>

#include "jxcache/host/export.h"

namespace zelcore::debug {

JX_EXPORT bool ParseBoolSetting(const std::string& text);
JX_EXPORT int32_t ParseInt32Setting(const std::string& text, int32_t defaultValue);
JX_EXPORT uint32_t ParseUInt32Setting(const std::string& text, uint32_t defaultValue);
JX_EXPORT double ParseDoubleSetting(const std::string& text, double defaultValue);
// A double default as the database stores it ("%1.*lg" with full precision).
JX_EXPORT std::string FormatDoubleSetting(double value);

}  // namespace zelcore::debug
