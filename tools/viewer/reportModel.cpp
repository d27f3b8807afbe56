#include "reportModel.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include "utf8.h"

namespace viewer {
namespace {

using nlohmann::json;

std::optional<std::uint64_t> parseHash(std::string_view digits) {
  std::uint64_t hash = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, problem] = std::from_chars(digits.data(), end, hash);
  if (problem != std::errc() || stop != end) {
    return std::nullopt;
  }
  return hash;
}

// A value of the document together with the way to it, which errors name. It refers to its parent
// and to the document, so it lives no longer than they do.
class node {
 public:
  node(const json& value, const std::string& source) : value_(value), source_(source) {}

  node member(const char* name) const {
    const auto found = object().find(name);
    if (found == value_.end()) {
      fail(fmt::format("expected a member \"{}\", found none", name));
    }
    return {*found, *this, name};
  }

  // Calls `visit(key, node)` for each member.
  template <typename visitor>
  void forEachMember(visitor visit) const {
    for (const auto& [key, value] : object().items()) {
      visit(key, node(value, *this, key));
    }
  }

  // Calls `visit(node)` for each element.
  template <typename visitor>
  void forEachElement(visitor visit) const {
    expect(value_.is_array(), "an array");
    for (std::size_t i = 0; i < value_.size(); i++) {
      visit(node(value_[i], *this, std::to_string(i)));
    }
  }

  std::string text() const {
    expect(value_.is_string(), "a string");
    return value_.get<std::string>();
  }

  std::int32_t number() const {
    expect(value_.is_number_integer(), "a whole number");
    const bool fits = value_.is_number_unsigned()
                          ? value_.get<std::uint64_t>() <= std::numeric_limits<std::int32_t>::max()
                          : value_.get<std::int64_t>() >= std::numeric_limits<std::int32_t>::min();
    if (!fits) {
      fail("expected a signed 32-bit number, found " + value_.dump());
    }
    return value_.get<std::int32_t>();
  }

  std::uint32_t count() const { return static_cast<std::uint32_t>(number()); }

  void expect(bool met, const char* what) const {
    if (!met) {
      fail(fmt::format("expected {}, found {}", what, value_.type_name()));
    }
  }

  [[noreturn]] void fail(const std::string& problem) const {
    throw inputError(fmt::format("{}: {}: {}", source_, path(), problem));
  }

 private:
  node(const json& value, const node& parent, std::string key)
      : value_(value), source_(parent.source_), parent_(&parent), key_(std::move(key)) {}

  const json& object() const {
    expect(value_.is_object(), "an object");
    return value_;
  }

  std::string path() const {
    if (parent_ == nullptr) {
      return "document";
    }
    return parent_->parent_ == nullptr ? key_ : parent_->path() + " / " + key_;
  }

  const json& value_;
  const std::string& source_;
  const node* parent_ = nullptr;
  std::string key_;
};

// The key of a member holds the true hash; "hashcode" stays 0 for a stack that was seen once.
std::vector<stackUse> readStacks(const node& map) {
  std::vector<stackUse> stacks;
  map.forEachMember([&](const std::string& key, const node& value) {
    const auto hash = parseHash(key);
    if (!hash) {
      value.fail("expected a stack's hash in decimal as the member's name");
    }
    stacks.push_back({*hash, value.member("count").count()});
  });
  return stacks;
}

threadEntry readThread(const node& value) {
  threadEntry result;
  result.name = value.member("name").text();
  result.entries = value.member("count").count();
  result.blockedSeconds = value.member("totalBlockTime").count();
  result.waitedSeconds = value.member("totalWaitTime").count();
  result.stacks = readStacks(value.member("stacktracebean"));
  return result;
}

// The member's name names the lock: "id" is empty for a lock that was met once and never updated.
lockEntry readLock(const std::string& name, const node& value) {
  lockEntry result;
  result.name = name;
  value.member("id").text();
  result.entries = value.member("count").count();
  result.blockedSeconds = value.member("totalBlockTime").count();
  result.waitedSeconds = value.member("totalWaitTime").count();
  value.member("graph").forEachElement(
      [&](const node& slot) { result.entriesPerMinute.push_back(slot.count()); });
  value.member("threadbean").forEachMember([&](const std::string&, const node& thread) {
    result.threads.push_back(readThread(thread));
  });
  return result;
}

blockerEntry readBlocker(const node& value) {
  blockerEntry result;
  result.name = value.member("name").text();
  result.timesOwner = value.member("blockingCount").count();
  result.blockingPeriods = value.member("blockCount").count();
  result.blockingSeconds = value.member("totalBlockingTime").count();
  result.stacks = readStacks(value.member("stacktracebean"));
  return result;
}

json parseDocument(std::string_view text, const std::string& source) {
  if (text.empty()) {
    throw inputError(source + ": expected a lock report, found an empty file");
  }
  try {
    return json::parse(toUtf8(text));
  } catch (const json::parse_error& e) {
    // "[json.exception.parse_error.101] parse error at line 1, column 9: ..."
    const std::string_view what = e.what();
    const std::size_t prefix = what.find("] ");
    throw inputError(fmt::format("{}: expected a JSON document: {}", source,
                                 what.substr(prefix == what.npos ? 0 : prefix + 2)));
  }
}

// "at a.b.C.m(),at d.E.n()" as "a.b.C.m" and "d.E.n"; nothing when the text is of another form. The
// frames are told apart by all of "(),at ", for a method's name may hold a comma.
std::optional<std::vector<std::string>> parseFrames(std::string_view text) {
  constexpr std::string_view kStart = "at ";
  constexpr std::string_view kBetween = "(),at ";
  constexpr std::string_view kEnd = "()";
  std::vector<std::string> frames;
  if (text.empty()) {
    return frames;
  }
  if (!text.starts_with(kStart) || !text.ends_with(kEnd)) {
    return std::nullopt;
  }
  text.remove_prefix(kStart.size());
  text.remove_suffix(kEnd.size());
  for (std::size_t end = text.find(kBetween); end != text.npos; end = text.find(kBetween)) {
    frames.push_back(toUtf8(text.substr(0, end)));
    text.remove_prefix(end + kBetween.size());
  }
  frames.push_back(toUtf8(text));
  return frames;
}

// One line of a stack file into `stacks`; false when it is of another form.
bool addStack(std::string_view line, stackTexts& stacks) {
  const std::size_t equals = line.find("=[");
  if (equals == line.npos || !line.ends_with(']')) {
    return false;
  }
  const auto hash = parseHash(line.substr(0, equals));
  const std::size_t begin = equals + 2;
  auto frames = parseFrames(line.substr(begin, line.size() - 1 - begin));
  if (!hash || !frames) {
    return false;
  }
  stacks.insert_or_assign(*hash, std::move(*frames));
  return true;
}

[[noreturn]] void failReading(const std::filesystem::path& file) {
  throw inputError(
      fmt::format("{}: cannot be read: {}", file.string(), std::generic_category().message(errno)));
}

std::string contents(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    failReading(file);
  }
  std::string text;
  std::array<char, 65536> block;
  while (stream.read(block.data(), block.size()), stream.gcount() > 0) {
    text.append(block.data(), static_cast<std::size_t>(stream.gcount()));
  }
  if (stream.bad()) {
    failReading(file);
  }
  return text;
}

}  // namespace

lockReport parseLockReport(std::string_view text, const std::string& source) {
  const json document = parseDocument(text, source);
  const node root(document, source);
  lockReport result;
  result.sessionName = root.member("sessionname").text();
  result.sessionId = root.member("sessionid").number();
  root.member("lockmap").forEachMember([&](const std::string& name, const node& value) {
    result.locks.push_back(readLock(name, value));
  });
  root.member("stacktracemap").forEachMember([&](const std::string&, const node& value) {
    value.text();
    result.distinctStacks++;
  });
  root.member("blockingThreads").forEachMember([&](const std::string&, const node& value) {
    result.blockers.push_back(readBlocker(value));
  });
  return result;
}

lockReport readLockReport(const std::filesystem::path& file) {
  return parseLockReport(contents(file), file.string());
}

stackTexts parseStackFile(std::string_view text, const std::string& source) {
  stackTexts stacks;
  for (std::size_t number = 1; !text.empty(); number++) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (!addStack(text.substr(0, end), stacks)) {
      throw inputError(
          fmt::format("{}:{}: expected a line HASH=[at a.b.C.method(),at ...]", source, number));
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return stacks;
}

stackTexts readStackFile(const std::filesystem::path& file) {
  return parseStackFile(contents(file), file.string());
}

}  // namespace viewer
