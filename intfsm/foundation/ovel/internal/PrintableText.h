// Quoting of untrusted text inside error messages: the text is shown between double quotes, bytes that
// would not print (control characters, DEL, non-ASCII) as \xNN, and a long text is cut with "...", so
// that a bad name sent by a peer cannot garble or flood the message that reports it.
//
//   printableText("et\x01")   // "\"et\\x01\""
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Ovel {

std::string printableText(std::string_view text, size_t maxBytes = 64);

}  // namespace Ovel
