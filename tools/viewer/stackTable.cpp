#include "stackTable.h"

#include <charconv>

#include "utf8.h"

namespace viewer {
namespace {

constexpr std::string_view kAfterHash = "=[";

// "at a.b.C.m(),at d.E.n()" as "a.b.C.m" and "d.E.n"; nothing when the text is of another form. The
// frames are separated by all of "(),at ", for a method's name may hold a comma.
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
  text.remove_suffix(std::min(kEnd.size(), text.size()));
  for (std::size_t end = text.find(kBetween); end != text.npos; end = text.find(kBetween)) {
    frames.push_back(toUtf8(text.substr(0, end)));
    text.remove_prefix(end + kBetween.size());
  }
  frames.push_back(toUtf8(text));
  return frames;
}

// False when the line is of another form.
bool addStack(std::string_view line, stackTable& stacks) {
  const std::size_t equals = line.find(kAfterHash);
  if (equals == line.npos || !line.ends_with(']')) {
    return false;
  }
  const auto hash = parseHash(line.substr(0, equals));
  const std::size_t begin = equals + kAfterHash.size();
  if (!hash || begin == line.size()) {
    return false;
  }
  const auto frames = parseFrames(line.substr(begin, line.size() - 1 - begin));
  if (frames) {
    stacks.add(*hash, *frames);
  }
  return frames.has_value();
}

}  // namespace

void stackTable::add(std::uint64_t hash, const std::vector<std::string>& methods) {
  std::vector<frameId> frames;
  frames.reserve(methods.size());
  for (const std::string& method : methods) {
    frames.push_back(idOf(method));
  }
  stacks_.insert_or_assign(hash, std::move(frames));
}

void stackTable::add(const stackTable& others) {
  for (const auto& [hash, frames] : others.stacks_) {
    std::vector<std::string> methods;
    methods.reserve(frames.size());
    for (const frameId frame : frames) {
      methods.push_back(others.method(frame));
    }
    add(hash, methods);
  }
}

const std::vector<frameId>* stackTable::find(std::uint64_t hash) const {
  const auto found = stacks_.find(hash);
  return found == stacks_.end() ? nullptr : &found->second;
}

frameId stackTable::idOf(const std::string& method) {
  const auto known = ids_.find(method);
  if (known != ids_.end()) {
    return known->second;
  }
  const auto id = static_cast<frameId>(methods_.size());
  ids_.emplace(methods_.emplace_back(method), id);
  return id;
}

std::optional<std::uint64_t> parseHash(std::string_view digits) {
  std::uint64_t hash = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, problem] = std::from_chars(digits.data(), end, hash);
  if (problem != std::errc() || stop != end) {
    return std::nullopt;
  }
  return hash;
}

bool isStackLine(std::string_view line) {
  const std::size_t equals = line.find(kAfterHash);
  return equals != line.npos && parseHash(line.substr(0, equals));
}

void readStackFile(byteSource bytes, const std::string& source, stackTable& stacks,
                   std::vector<std::string>& problems) {
  readLines(std::move(bytes), source, "stacks", problems,
            [&stacks](const std::string& line, const std::string& place) {
              if (!addStack(line, stacks)) {
                throw inputError(place + ": expected a line HASH=[at a.b.C.method(),at ...]");
              }
            });
}

}  // namespace viewer
