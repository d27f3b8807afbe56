// Which names and types of variables tell of a secret. Plain functions on text; any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace agent::redacted {

// Words in lower case, letters and digits only, as `plainWord` makes them.
using words = std::vector<std::string>;

// A word for `words`: "API_Key" is "apikey". Empty when there is no letter or digit in it.
std::string plainWord(std::string_view text);

// Whether a name has a word that stands for a secret: a built-in one, or one of `own`. Words begin
// and end at the borders of camel case, digits and everything that is not a letter; one word of a
// list may span several of the name ("apiKey"). What a word of `shown` covers does not count.
bool isSecretName(std::string_view name, const words& own, const words& shown);
// By the words of `own` alone.
bool isOwnName(std::string_view name, const words& own, const words& shown);

// Whether the last word tells that the value is a number about something, as in "tokenCount".
bool isNameOfCount(std::string_view name);

// Whether what a text has after "name:" is a secret even in a sentence: fewer names than above.
bool isSecretInSentence(std::string_view name);
// Whether such a secret goes to the end of its line: that of a header.
bool isSecretLine(std::string_view name);

// Whether a class is one of secrets. `type` is a JVM signature ("Lcom/example/Vault;", "[C").
// `own` are names as Class.getName gives them, with "*" and "?"; without a dot they are compared
// with what follows the last dot. Arrays count as their elements.
bool isSecretType(std::string_view type, const words& own);

// Whether the text is like the pattern, "*" for any text and "?" for a character; in linear time
// for each "*".
bool isLike(std::string_view text, std::string_view pattern);

}  // namespace agent::redacted
