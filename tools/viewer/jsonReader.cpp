#include "jsonReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "utf8.h"

namespace viewer {
namespace {

using nlohmann::json;

constexpr std::size_t kDeepest = 200;      // objects and arrays inside each other
constexpr std::size_t kLongestPiece = 80;  // columns of a name or text in an error
constexpr std::size_t kLongestError = 300;

// The UTF-8 characters of a document in modified UTF-8, byte by byte. Nearly all the time of a
// large input is spent here and in the parser, so a step is a pointer's.
class utf8Bytes {
 public:
  utf8Bytes(byteSource bytes, const std::string& source)
      : bytes_(std::move(bytes)), source_(source) {
    refill();
  }

  bool atEnd() const { return next_ == end_; }
  char current() const { return *next_; }
  void advance() {
    if (++next_ == end_) {
      refill();
    }
  }

 private:
  // The bytes of a character that a block's end cuts wait for those of the next block. The parser
  // would take a zero byte for the end of the document.
  void refill() {
    line_ += static_cast<std::size_t>(std::count(std::as_const(text_).data(), end_, '\n'));
    if (isBeforeZero_) {
      failForZero();
    }
    text_.clear();
    while (text_.empty() && !ended_) {
      const std::string_view block = bytes_();
      ended_ = block.empty();
      pending_ += block;
      pending_.erase(0, appendUtf8(pending_, ended_, text_));
    }
    const std::size_t zero = text_.find('\0');
    isBeforeZero_ = zero != text_.npos;
    next_ = text_.data();
    end_ = next_ + std::min(zero, text_.size());
    if (isBeforeZero_ && atEnd()) {
      failForZero();
    }
  }

  [[noreturn]] void failForZero() const {
    throw inputError(
        fmt::format("{}: expected a JSON document: found a zero byte in line {}", source_, line_));
  }

  byteSource bytes_;
  const std::string& source_;
  std::size_t line_ = 1;  // at the begin of the text
  std::string pending_;
  std::string text_;
  const char* next_ = text_.data();
  const char* end_ = text_.data();
  bool isBeforeZero_ = false;
  bool ended_ = false;
};

class utf8Iterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = char;

  explicit utf8Iterator(utf8Bytes* bytes = nullptr) : bytes_(bytes) {}
  char operator*() const { return bytes_->current(); }
  utf8Iterator& operator++() {
    bytes_->advance();
    return *this;
  }
  // Only ever compared with the end.
  bool operator==(const utf8Iterator&) const { return bytes_->atEnd(); }
  bool operator!=(const utf8Iterator& other) const { return !(*this == other); }

 private:
  utf8Bytes* bytes_;
};

// "[json.exception.parse_error.101] parse error at line 1, column 9: ..." without its head. What
// the parser read last ends where it gave up, even within a character.
std::string parseProblem(const std::string& source, const json::exception& e) {
  const std::string problem = toUtf8(e.what());
  const std::string_view what = problem;
  const std::size_t prefix = what.find("] ");
  return fmt::format("{}: expected a JSON document: {}", source,
                     cutEnd(what.substr(prefix == what.npos ? 0 : prefix + 2), kLongestError));
}

// What both handlers of the parser's events have in common.
class handler {
 public:
  explicit handler(const std::string& source) : source_(source) {}

  bool binary(json::binary_t&) { return true; }  // JSON has none
  bool parse_error(std::size_t, const std::string&, const json::exception& e) {
    throw inputError(parseProblem(source_, e));
  }

 protected:
  const std::string& source_;
};

class modelFiller : public handler {
 public:
  modelFiller(const std::string& source, place root) : handler(source), root_(root) {}

  bool null() {
    const place spot = next();
    expect(spot.expected->nullable, spot, "null");
    return true;
  }
  bool boolean(bool value) {
    const place spot = next();
    expect(spot.expected->boolean != nullptr, spot, "boolean");
    return fill(spot, spot.expected->boolean, value);
  }
  bool number_integer(json::number_integer_t value) { return number(value, value); }
  bool number_unsigned(json::number_unsigned_t value) {
    const auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return number(static_cast<std::int64_t>(std::min(value, most)), value, value <= most);
  }
  bool number_float(json::number_float_t value, const json::string_t&) {
    const place spot = next();
    expect(spot.expected->real != nullptr, spot, "number");
    return fill(spot, spot.expected->real, value);
  }
  bool string(json::string_t& value) {
    const place spot = next();
    expect(spot.expected->text != nullptr, spot, "string");
    return fill(spot, spot.expected->text, value);
  }
  bool start_object(std::size_t) {
    const place spot = next();
    expect(spot.expected->member != nullptr || !spot.expected->members.empty(), spot, "object");
    return enter(spot, true);
  }
  bool key(json::string_t& name) {
    level& inside = levels_.back();
    inside.key = name;
    inside.coming = {&passedOver(), nullptr};
    const shape& object = *inside.spot.expected;
    if (object.anything) {
      return true;
    }
    if (object.member != nullptr) {
      guarded([&] { inside.coming = object.member(inside.spot.target, name); });
      return true;
    }
    // Members mostly come in their order.
    const std::size_t size = object.members.size();
    for (std::size_t tried = 0; tried < size; tried++) {
      const std::size_t i = (inside.expected + tried) % size;
      if (object.members[i].name == inside.key) {
        inside.seen |= std::uint64_t(1) << i;
        inside.coming = object.members[i].at(inside.spot.target);
        inside.expected = i + 1;
        break;
      }
    }
    return true;
  }
  bool end_object() {
    const level& inside = levels_.back();
    const auto& members = inside.spot.expected->members;
    for (std::size_t i = 0; i < members.size(); i++) {
      if (members[i].required && (inside.seen >> i & 1) == 0) {
        failAt(levels_.size() - 1,
               fmt::format("expected a member \"{}\", found none", members[i].name));
      }
    }
    levels_.pop_back();
    return true;
  }
  bool start_array(std::size_t) {
    const place spot = next();
    expect(spot.expected->element != nullptr, spot, "array");
    return enter(spot, false);
  }
  bool end_array() {
    levels_.pop_back();
    return true;
  }

 private:
  // An object or array that the parser is in.
  struct level {
    place spot;
    bool isObject;
    std::string key = {};               // of the member that the parser is at
    std::uint64_t count = 0;            // of the elements so far
    std::size_t expected = 0;           // the fixed member that should come next
    std::uint64_t seen = 0;             // the fixed members so far, by their place
    place coming = {nullptr, nullptr};  // where the member that the parser is at goes
  };

  // Where the value goes that the parser comes to.
  place next() {
    if (levels_.empty()) {
      return root_;
    }
    level& inside = levels_.back();
    if (inside.isObject) {
      return inside.coming;
    }
    inside.count++;
    const shape& array = *inside.spot.expected;
    return array.anything ? place{&passedOver(), nullptr} : array.element(inside.spot.target);
  }

  bool enter(place spot, bool isObject) {
    if (levels_.size() == kDeepest) {
      fail(fmt::format("expected at most {} objects and arrays inside each other, found more",
                       kDeepest));
    }
    levels_.push_back({spot, isObject});
    return true;
  }

  template <typename shown>
  bool number(std::int64_t value, shown asWritten, bool fits = true) {
    const place spot = next();
    expect(spot.expected->number != nullptr, spot, "number");
    if (spot.expected->anything) {
      return true;
    }
    if (!fits || value < spot.expected->least || value > spot.expected->most) {
      const bool is32Bits = spot.expected->most == std::numeric_limits<std::int32_t>::max();
      fail(fmt::format("expected a signed {}-bit number, found {}", is32Bits ? 32 : 64, asWritten));
    }
    return fill(spot, spot.expected->number, value);
  }

  template <typename filler, typename valueType>
  bool fill(place spot, filler into, valueType&& value) {
    if (!spot.expected->anything) {
      guarded([&] { into(spot.target, value); });
    }
    return true;
  }

  void expect(bool met, place spot, const char* found) const {
    if (!met && !spot.expected->anything) {
      fail(fmt::format("expected {}, found {}", spot.expected->expected, found));
    }
  }

  template <typename action>
  void guarded(action run) const {
    try {
      run();
    } catch (const misfit& e) {
      fail(e.what());
    }
  }

  [[noreturn]] void fail(const std::string& problem) const { failAt(levels_.size(), problem); }

  // With the way through the first `depth` levels.
  [[noreturn]] void failAt(std::size_t depth, const std::string& problem) const {
    std::string path;
    for (std::size_t i = 0; i < depth; i++) {
      const level& one = levels_[i];
      path += path.empty() ? "" : " / ";
      path += one.isObject ? cutEnd(one.key, kLongestPiece) : std::to_string(one.count - 1);
    }
    throw inputError(fmt::format("{}: {}: {}", source_,
                                 path.empty() ? "document" : cutStart(path, kLongestError),
                                 cutEnd(problem, kLongestError)));
  }

  place root_;
  std::vector<level> levels_;
};

class memberFinder : public handler {
 public:
  memberFinder(const std::string& source, const std::function<bool(std::string_view)>& known)
      : handler(source), known_(known) {}

  bool null() { return goesOn(); }
  bool boolean(bool) { return goesOn(); }
  bool number_integer(json::number_integer_t) { return goesOn(); }
  bool number_unsigned(json::number_unsigned_t) { return goesOn(); }
  bool number_float(json::number_float_t, const json::string_t&) { return goesOn(); }
  bool string(json::string_t& value) {
    if (isFound()) {
      found_.text = std::move(value);
    }
    return goesOn();
  }
  bool start_object(std::size_t) {
    depth_++;
    return goesOn();
  }
  bool key(json::string_t& name) {
    if (depth_ == 1 && known_(name)) {
      found_.name = name;
    }
    return true;
  }
  bool end_object() { return --depth_ > 0; }
  bool start_array(std::size_t) { return depth_++ > 0 && goesOn(); }
  bool end_array() { return --depth_ > 0; }

  const foundMember& found() const { return found_; }

 private:
  bool isFound() const { return !found_.name.empty(); }
  bool goesOn() const { return depth_ > 0 && !isFound(); }

  const std::function<bool(std::string_view)>& known_;
  std::size_t depth_ = 0;
  foundMember found_;
};

template <typename type, typename value>
void assign(void* target, value from) {
  *static_cast<type*>(target) = static_cast<type>(from);
}

template <typename type>
void moveText(void* target, std::string& value) {
  *static_cast<type*>(target) = std::move(value);
}

template <typename handlerType>
void parse(byteSource bytes, const std::string& source, handlerType& events, bool wholeText) {
  utf8Bytes text(std::move(bytes), source);
  json::sax_parse(utf8Iterator(&text), utf8Iterator(), &events, json::input_format_t::json,
                  wholeText);
}

}  // namespace

template <>
const shape& shapeOf<std::string>() {
  static const shape result = {.expected = "a string", .text = moveText<std::string>};
  return result;
}

template <>
const shape& shapeOf<std::optional<std::string>>() {
  static const shape result = {.expected = "a string or null",
                               .nullable = true,
                               .text = moveText<std::optional<std::string>>};
  return result;
}

template <>
const shape& shapeOf<std::optional<bool>>() {
  static const shape result = {.expected = "true, false or null",
                               .nullable = true,
                               .boolean = assign<std::optional<bool>, bool>};
  return result;
}

template <>
const shape& shapeOf<std::int32_t>() {
  static const shape result = {.expected = "a whole number",
                               .number = assign<std::int32_t, std::int64_t>};
  return result;
}

template <>
const shape& shapeOf<std::uint32_t>() {
  static const shape result = {.expected = "a whole number",
                               .number = assign<std::uint32_t, std::int64_t>};
  return result;
}

template <>
const shape& shapeOf<std::int64_t>() {
  static const shape result = {.expected = "a whole number",
                               .number = assign<std::int64_t, std::int64_t>,
                               .least = std::numeric_limits<std::int64_t>::min(),
                               .most = std::numeric_limits<std::int64_t>::max()};
  return result;
}

template <>
const shape& shapeOf<std::optional<std::int64_t>>() {
  static const shape result = {.expected = "a whole number or null",
                               .nullable = true,
                               .number = assign<std::optional<std::int64_t>, std::int64_t>,
                               .least = std::numeric_limits<std::int64_t>::min(),
                               .most = std::numeric_limits<std::int64_t>::max()};
  return result;
}

const shape& passedOver() {
  static const shape result = {.anything = true};
  return result;
}

void readJson(byteSource bytes, const std::string& source, place root) {
  modelFiller filler(source, root);
  parse(std::move(bytes), source, filler, true);
}

foundMember firstMember(byteSource bytes, const std::string& source,
                        const std::function<bool(std::string_view)>& known) {
  memberFinder finder(source, known);
  try {
    parse(std::move(bytes), source, finder, false);
  } catch (const inputError&) {
    if (finder.found().name.empty()) {
      throw;
    }
  }
  return finder.found();
}

}  // namespace viewer
