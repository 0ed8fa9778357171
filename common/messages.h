// The library's localised message table: one string per number, looked up through the host's
// localised-string cache under "$$$/KQ/JX/LStr/<4-digit number>=<default text>".
#pragma once

#include <string>

namespace jx {

inline constexpr int kMessageCount = 27;
// The full look-up key of message `number` ("$$$/KQ/JX/LStr/0011=cached item ..."), or null
// for a number outside the table.
const char* MessageKey(int number);
// The message text as the host localises it ("#{rsquo}" already turned into U+2019).
std::u16string LookupMessage(int number);

}  // namespace jx
