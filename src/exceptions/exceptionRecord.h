// The text of an exception record: its separators, type codes and entries. No VM is needed here.
//
// Values are not escaped; whoever reads a record tells text from separators by their order.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "exceptions/recordPlaces.h"

namespace agent::record {

inline constexpr std::string_view kJoin = "%3A";           // joins the parts of an entry
inline constexpr std::string_view kEnd = "%2C";            // ends a primitive or text entry
inline constexpr std::string_view kOpenObject = "!%23";    // opens an object entry
inline constexpr std::string_view kEndObject = "!%23%2C";  // ends an object entry
inline constexpr std::string_view kNull = "NULL";
inline constexpr std::string_view kEndHeader = "%40%41";
inline constexpr std::string_view kEndClassVariables = "%42";
inline constexpr std::string_view kEndArguments = "%43";
inline constexpr std::string_view kEndLocals = "%44";
inline constexpr std::string_view kEndFrame = "%7C";

// The last separator of a section or record, which is dropped, has this many characters.
inline constexpr std::size_t kSeparatorLength = 3;

// What a value is; its entry has the number in decimal.
enum class typeCode : int {
  boolean = 0,
  character = 1,
  byte = 2,
  shortInt = 3,
  integer = 4,
  longInt = 5,
  doubleFloat = 6,
  string = 7,
  stringBuilder = 8,
  singleFloat = 9,
  object = 10,
};

// The code of a field or variable with this signature.
typeCode codeOf(std::string_view signature);

// The first frame of a delivered record, with empty sections.
std::string withoutValues(std::string_view text);

// A record as it grows: entries are appended in place, nested ones too, up to a budget of bytes.
//
// What is open can always be closed: room for that is kept from the moment of opening. Something
// that does not fit is not appended and leaves the record cut. The walk over values then stops and
// closes what it has opened, so that a cut record ends after its last complete entry.
//
// Beside the text it keeps the places of the separators, if they are wanted. These are no part of
// the budget, which is the same with them and without: 4 bytes for a separator of 3 or more.
class builder {
 public:
  explicit builder(std::size_t limit, bool wantsPlaces = false);

  const std::string& text() const { return text_; }
  std::string take() { return std::move(text_); }
  std::size_t limit() const { return limit_; }
  // The places as Java takes them; empty when they are not wanted. Taken before the text, and last.
  std::vector<std::int32_t> takePlaces();

  bool isCut() const { return isCut_; }
  // Ends the walk over values, for another reason than the room.
  void cut() { isCut_ = true; }

  // A frame, which begins with its header; false when that does not fit. `inner` are the places
  // within the header that must be kept, counted from its start.
  bool openFrame(std::string_view header, std::initializer_list<std::size_t> inner = {});
  // Ends a section of the open frame, or with kEndFrame the frame.
  void endSection(std::string_view mark);

  // name:code:value, - where `isStatic` is for fields.
  void appendEntry(std::string_view name, typeCode code, std::string_view value,
                   bool isStatic = false);
  void appendNumber(std::string_view name, typeCode code, std::int64_t value,
                    bool isStatic = false);
  // The value as "%f" writes it in the C locale.
  void appendFloat(std::string_view name, typeCode code, double value, bool isStatic = false);
  // The entry of a null reference: among arguments and locals, and among an object's fields.
  // Deliberate: of two forms. Only its place distinguishes it from what else is written so.
  void appendNullObject(std::string_view name, valueState state = valueState::null);
  void appendNullField(std::string_view name, valueState state = valueState::null,
                       bool isStatic = false);
  // The entry of a value that nobody may see, as a text: "<redacted:reason>".
  void appendRedacted(std::string_view name, std::string_view reason, bool isStatic = false);
  // Notes a variable without an entry: the VM has no value for it.
  void noteUnavailable();

  // How a text came out. Without room for the beginning of it nothing was appended.
  enum class outcome { written, unreadable, noRoom };
  // Appends a text of `units` UTF-16 code units, up to `most` of them, and as many as fit: it is
  // never cut within a character. `read(start, count, out)` gives units as modified UTF-8 with a
  // NUL after them, or false when it cannot.
  template <typename Read>
  outcome appendText(std::string_view name, typeCode code, std::size_t units, std::size_t most,
                     Read&& read, bool isStatic = false);

  // An object entry, around the entries appended until it is closed. Opening gives what closing
  // needs, or kNotOpen when there is no room: nothing must be closed then.
  static constexpr std::size_t kNotOpen = 0;
  std::size_t openObject(std::string_view name);
  void closeObject(std::size_t opened, bool isStatic = false);

  // Drops the separator at the end of the section that began when the text had `start` bytes; one
  // of three characters or fewer stays.
  void dropLastSeparator(std::size_t start);
  std::size_t size() const { return text_.size(); }

  // Where the record stands, to go back there from an entry that could not be finished.
  struct place {
    std::size_t size;
    std::size_t reserved;
    std::size_t places;
  };
  place here() const { return {text_.size(), reserved_, places_.size()}; }
  void goBack(place to);

 private:
  static constexpr std::size_t kUnitsAtOnce = 1024;
  static constexpr std::size_t kBytesOfUnit = 3;  // at most
  static constexpr std::size_t kBytesOfPair = 6;

  // Bytes that may still be appended.
  std::size_t room() const {
    const std::size_t used = text_.size() + reserved_;
    return used < limit_ ? limit_ - used : 0;
  }
  // Whether so many bytes may be appended; the record is cut when not.
  bool fits(std::size_t bytes);
  void makeRoom(std::size_t bytes);
  // Appends a separator, and notes its place.
  void separate(std::string_view separator, std::uint32_t flags = 0) {
    notePlace(text_.size(), flags);
    text_ += separator;
  }
  void notePlace(std::size_t offset, std::uint32_t flags = 0) {
    if (wantsPlaces_) {
      places_.push_back(static_cast<std::int32_t>(static_cast<std::uint32_t>(offset) | flags));
    }
  }
  void appendHead(std::string_view name, typeCode code);
  void appendValue(std::string_view name, typeCode code, std::string_view value,
                   std::uint32_t flags);
  void endObject(std::uint32_t flags);
  // The beginning of a text entry, if that and a first character fit; and its end.
  bool openText(std::string_view name, typeCode code, std::size_t units);
  void closeText(bool isStatic);
  // Ends the text that began at `start` with the last character that lies within `bytes`.
  void shortenText(std::size_t start, std::size_t bytes);

  std::size_t limit_;
  std::size_t reserved_ = 0;  // for what closes the open frame and objects
  std::string text_;
  const bool wantsPlaces_;
  std::vector<std::int32_t> places_;  // with offsets in bytes
  bool isCut_ = false;
};

template <typename Read>
builder::outcome builder::appendText(std::string_view name, typeCode code, std::size_t units,
                                     std::size_t most, Read&& read, bool isStatic) {
  const place before = here();
  if (!openText(name, code, units)) {
    return outcome::noRoom;
  }
  const std::size_t start = text_.size();
  const std::size_t bytes = room();
  // One more than what is written tells a pair at the end from half of one.
  const std::size_t wanted = units > most ? most + 1 : units;
  std::size_t done = 0;
  while (done < wanted && text_.size() - start <= bytes) {
    const std::size_t count = std::min(wanted - done, kUnitsAtOnce);
    const std::size_t end = text_.size();
    makeRoom(count * kBytesOfUnit + 1);
    text_.resize(end + count * kBytesOfUnit + 1);
    if (!read(done, count, text_.data() + end)) {
      goBack(before);
      return outcome::unreadable;
    }
    text_.resize(end + std::char_traits<char>::length(text_.data() + end));
    done += count;
  }
  if (units > most && done == wanted) {
    shortenText(start, text_.size() - start - 1);
  }
  if (text_.size() - start > bytes) {
    shortenText(start, bytes);
    isCut_ = true;
  }
  closeText(isStatic);
  return outcome::written;
}

}  // namespace agent::record
