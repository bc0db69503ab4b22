// Texts made fit to be given away: what looks like a secret, or like an email address, is taken out.
#pragma once

#include <string>
#include <string_view>

namespace telvorctl {

// `text` (of one line or many) with "***" in place of
//   the value behind a name that speaks of a secret (token, password, private key, authorization ...), of an
//   account or of a code, be it JSON, a header or a query: up to its closing quote, else to the line's end;
//   an email address up to its @;
//   a run of 20 or more characters that reads like a key or token rather than like words.
// A short secret that stands alone, with nothing to tell it by, is not found.
std::string MaskSecrets(std::string_view text);

// Whether it has the form of a WireGuard key: 44 characters of Base64.
bool IsKey(std::string_view text);

}  // namespace telvorctl
