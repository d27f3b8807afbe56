// What is hidden of what the agent records: the settings, and the answer for each name, type and
// value. Immutable once made; any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "exceptions/redactedValues.h"

namespace agent {

enum class redactionMode {
  off,
  names,     // by name and type
  standard,  // and by value
  strict     // and what looks random
};

// The mode by its name; none for any other text.
std::optional<redactionMode> redactionModeOf(std::string_view name);
std::string_view nameOf(redactionMode mode);

struct redactionSettings {
  redactionMode mode = redactionMode::off;
  std::vector<std::string> names = {};   // of variables, besides the built-in ones
  std::vector<std::string> types = {};   // names of classes, "*" for any text
  std::vector<std::string> values = {};  // patterns: "*", "?", "#" for a digit
  std::vector<std::string> shown = {};   // names that are not hidden

  static constexpr std::size_t kMostEntries = 32;  // of a list
};

// What is wrong with the settings, to be printed; empty when they can be used.
std::string problemOf(const redactionSettings& settings);

class redaction {
 public:
  using reason = redacted::reason;

  // For settings without a problem that do not switch it off.
  explicit redaction(redactionSettings settings);

  // Why the value of a variable or field is not to be read, if so; `signature` is of its declared
  // type. Numbers about secrets, as "tokenCount", and booleans are shown unless the name is the
  // user's own.
  std::optional<reason> ofVariable(std::string_view name, std::string_view signature) const;
  // The same for an object of a class.
  std::optional<reason> ofClass(std::string_view signature) const;
  // Whether a number must be hidden: that of a card.
  std::optional<reason> ofNumber(std::int64_t value) const {
    // Of 13 digits, and no time in milliseconds since the epoch.
    constexpr std::int64_t kSmallest = 2'000'000'000'000;
    return value >= kSmallest && looksAtValues() ? ofLargeNumber(value) : std::nullopt;
  }

  bool looksAtValues() const { return mode_ >= redactionMode::standard; }
  redactionMode mode() const { return mode_; }

  // The text with all secrets replaced; either `text` itself or in `changed`. See
  // redacted::hideIn.
  std::string_view text(std::string_view text, bool isWhole, std::string& changed) const;

  // That of the process; null when it is off.
  static std::shared_ptr<const redaction> ofProcess();
  // Replaces it; off for settings that say so. Returns what is wrong with them, and changes nothing
  // then.
  static std::string configure(redactionSettings settings);

 private:
  static std::optional<reason> ofLargeNumber(std::int64_t value);

  redactionMode mode_;
  redacted::words types_;
  redacted::valueRules rules_;
};

}  // namespace agent
