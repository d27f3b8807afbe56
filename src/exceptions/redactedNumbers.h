// Numbers with a check digit: those of cards and of bank accounts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace agent::redacted {

// The end of the card number that begins at `at`, where a run of digits begins. It has 13 to 19
// digits with a valid check digit, in one run or in groups with one kind of separator. `at` when
// there is none.
std::size_t endOfCard(std::string_view text, std::size_t at);

// The same for an IBAN of a country that has them, where a word begins. Blanks may be in it.
std::size_t endOfIban(std::string_view text, std::size_t at);

// Whether a number is that of a card: with a beginning and length that issuers give.
bool isCardNumber(std::int64_t value);

}  // namespace agent::redacted
