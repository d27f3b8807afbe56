#include "exceptions/redaction.h"

#include <algorithm>
#include <array>
#include <utility>

#include "exceptions/redactedNumbers.h"
#include "support/annotations.h"
#include "support/sharedSlot.h"
#include "support/text.h"

namespace agent {

namespace {

using mode = redactionMode;

constexpr std::array<std::pair<std::string_view, mode>, 4> kModes{{{"off", mode::off},
                                                                   {"names", mode::names},
                                                                   {"standard", mode::standard},
                                                                   {"strict", mode::strict}}};

struct published {
  support::mutex mutex;  // around publishing
  support::sharedSlot<const redaction> slot;
};

published& ofThisProcess() {
  static auto* const one = new published();  // never destroyed: handlers may run until the end
  return *one;
}

// What is wrong with one entry of a list.
using check = bool (*)(std::string_view entry);

std::string problemIn(std::string_view setting, const std::vector<std::string>& list, check isRight,
                      std::string_view expected) {
  const std::string begin(setting);
  if (list.size() > redactionSettings::kMostEntries) {
    return begin + ": expected at most " + std::to_string(redactionSettings::kMostEntries) +
           " entries, found " + std::to_string(list.size());
  }
  for (const std::string& entry : list) {
    if (!isRight(entry)) {
      return begin + " '" + entry + "': expected " + std::string(expected);
    }
  }
  return {};
}

bool isWord(std::string_view entry) {
  constexpr std::size_t kLongest = 128;
  return entry.size() <= kLongest && !redacted::plainWord(entry).empty() &&
         entry.find_first_of("*?#") == std::string_view::npos;
}

bool isTypeName(std::string_view entry) {
  return redacted::isPattern(entry) && entry.find_first_not_of(".*$") != std::string_view::npos &&
         entry.find_first_of(" /;:") == std::string_view::npos;
}

redacted::words plainWords(const std::vector<std::string>& entries) {
  redacted::words words;
  std::transform(entries.begin(), entries.end(), std::back_inserter(words), redacted::plainWord);
  return words;
}

bool isNumber(std::string_view signature) {
  return signature.size() == 1 &&
         std::string_view("BSIJFD").find(signature.front()) != std::string_view::npos;
}

}  // namespace

std::optional<redactionMode> redactionModeOf(std::string_view name) {
  const std::string word = support::lowerCase(name);
  for (const auto& [each, result] : kModes) {
    if (each == word) {
      return result;
    }
  }
  return std::nullopt;
}

std::string_view nameOf(redactionMode wanted) {
  return kModes[static_cast<std::size_t>(wanted)].first;
}

std::string problemOf(const redactionSettings& settings) {
  constexpr std::string_view kWord = "a word of a name, such as customerId";
  for (const std::string& problem :
       {problemIn("redactNames", settings.names, isWord, kWord),
        problemIn("redactTypes", settings.types, isTypeName,
                  "the name of a class, such as com.example.Vault or *Vault*"),
        problemIn("redactValues", settings.values, redacted::isPattern,
                  "a pattern with something besides '*' and '?', such as CUST-####"),
        problemIn("showNames", settings.shown, isWord, kWord)}) {
    if (!problem.empty()) {
      return problem;
    }
  }
  return {};
}

redaction::redaction(redactionSettings settings)
    : mode_(settings.mode),
      types_(std::move(settings.types)),
      rules_{.names = plainWords(settings.names),
             .shown = plainWords(settings.shown),
             .patterns = std::move(settings.values),
             .isStrict = settings.mode == mode::strict} {}

std::optional<redacted::reason> redaction::ofVariable(std::string_view name,
                                                      std::string_view signature) const {
  if (redacted::isSecretName(name, rules_.names, rules_.shown)) {
    const bool isAbout = signature == "Z" || (isNumber(signature) && redacted::isNameOfCount(name));
    if (!isAbout || redacted::isOwnName(name, rules_.names, rules_.shown)) {
      return reason::name;
    }
  }
  return ofClass(signature);
}

std::optional<redacted::reason> redaction::ofClass(std::string_view signature) const {
  if (signature.size() > 1 && redacted::isSecretType(signature, types_)) {
    return reason::type;
  }
  return std::nullopt;
}

std::optional<redacted::reason> redaction::ofLargeNumber(std::int64_t value) {
  return redacted::isCardNumber(value) ? std::optional(reason::card) : std::nullopt;
}

std::string_view redaction::text(std::string_view text, bool isWhole, std::string& changed) const {
  return looksAtValues() ? redacted::hideIn(text, isWhole, rules_, changed) : text;
}

std::shared_ptr<const redaction> redaction::ofProcess() {
  return ofThisProcess().slot.load();
}

std::string redaction::configure(redactionSettings settings) {
  std::string problem = problemOf(settings);
  if (!problem.empty()) {
    return problem;
  }
  const bool isOff = settings.mode == mode::off;
  const std::shared_ptr<const redaction> made =
      isOff ? nullptr : std::make_shared<const redaction>(std::move(settings));
  published& process = ofThisProcess();
  const support::lockGuard guard(process.mutex);
  process.slot.store(made);
  return {};
}

}  // namespace agent
