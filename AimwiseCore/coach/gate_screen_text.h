#pragma once
// Screen text as the gate's timeline shows it: identifiers redacted, cleaned, capped and always
// between double quotes, with its own quotation marks replaced, so that it cannot pass for the
// person's words. Results are remembered process-wide: the same reasons and titles come back on
// every poll, and the filters behind them cost far more than a lookup.
#include <cstddef>
#include <string>

namespace aimwise::GateScreenText {

// The classifier's reason or any other screen text, capped at `cap` characters, in quotes.
std::string quoted(const std::string& text, int cap);
// A window title in quotes, or in its place the note of why it is withheld: an identifier first,
// then a financial site, then a medical one.
std::string quotedTitle(const std::string& title);

size_t rememberedCount();
void forget();

}  // namespace aimwise::GateScreenText
