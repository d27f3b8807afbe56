#include "support/classFile.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>

namespace support {

namespace {

using byteSpan = std::span<const std::uint8_t>;

constexpr std::uint32_t kMagic = 0xCAFEBABE;
constexpr std::uint32_t kMost = 0xFFFF;  // what two bytes hold: bytes of code, constants

// Constants that are added; the others are only passed over.
constexpr std::uint32_t kUtf8 = 1;
constexpr std::uint32_t kClass = 7;
constexpr std::uint32_t kMethodref = 10;
constexpr std::uint32_t kNameAndType = 12;

constexpr std::uint32_t kNop = 0x00;
constexpr std::uint32_t kAload = 0x19;
constexpr std::uint32_t kAload0 = 0x2A;  // followed by those for the variables 1 to 3
constexpr std::uint32_t kShortForms = 4;
constexpr std::uint32_t kInvokespecial = 0xB7;
constexpr std::uint32_t kInvokestatic = 0xB8;
constexpr std::size_t kAlignment = 4;  // of the operands of switches, from the start of the code

// Frames of a stack map, by the highest type of each kind.
constexpr std::uint32_t kSameFrame = 63;
constexpr std::uint32_t kOneStackItem = 127;
constexpr std::uint32_t kReserved = 246;
constexpr std::uint32_t kOneStackItemExtended = 247;
constexpr std::uint32_t kSameFrameExtended = 251;
constexpr std::uint32_t kAppended = 254;
constexpr std::uint32_t kLastType = 8;
constexpr std::uint32_t kObjectType = 7;
constexpr std::uint32_t kUninitializedType = 8;

// Thrown where the bytes are not what they should be, or the result would not fit.
struct refusal {};

void require(bool holds) {
  if (!holds) {
    throw refusal();
  }
}

class reader {
 public:
  explicit reader(byteSpan bytes) : left_(bytes) {}

  byteSpan take(std::size_t count) {
    require(count <= left_.size());
    const byteSpan taken = left_.first(count);
    left_ = left_.subspan(count);
    return taken;
  }
  std::uint32_t u1() { return number(1); }
  std::uint32_t u2() { return number(2); }
  std::uint32_t u4() { return number(4); }

  byteSpan left() const { return left_; }

 private:
  std::uint32_t number(std::size_t size) {
    std::uint32_t value = 0;
    for (const std::uint8_t each : take(size)) {
      value = (value << 8U) | each;
    }
    return value;
  }

  byteSpan left_;
};

class writer {
 public:
  void u1(std::uint32_t value) { number(value, 1); }
  void u2(std::uint32_t value) {
    require(value <= kMost);
    number(value, 2);
  }
  void u4(std::uint32_t value) { number(value, 4); }
  void append(byteSpan bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }
  // With its length before it.
  void attributeBody(const writer& body) {
    u4(static_cast<std::uint32_t>(body.bytes_.size()));
    append(body.bytes_);
  }

  const std::vector<std::uint8_t>& bytes() const { return bytes_; }
  std::vector<std::uint8_t> take() { return std::move(bytes_); }

 private:
  void number(std::uint32_t value, unsigned size) {
    for (unsigned shift = size * 8; shift > 0; shift -= 8) {
      bytes_.push_back(static_cast<std::uint8_t>(value >> (shift - 8)));
    }
  }

  std::vector<std::uint8_t> bytes_;
};

// The constants of a class file, and those that are added.
class constantPool {
 public:
  explicit constantPool(reader& in) : texts_(in.u2()), count_(texts_.size()) {
    require(count_ > 0);
    constants_.resize(count_);
    const byteSpan begin = in.left();
    for (std::size_t index = 1; index < texts_.size(); ++index) {
      constants_[index] = in.left();
      index += readConstant(in, index);
    }
    original_ = begin.first(begin.size() - in.left().size());
  }

  std::string_view text(std::uint32_t index) const {
    require(index < texts_.size() && texts_[index].data() != nullptr);
    return texts_[index];
  }

  // Whether the constant refers to that method.
  bool isMethod(std::uint32_t index, std::string_view cls, std::string_view method,
                std::string_view descriptor) const {
    reader in = constant(index, kMethodref);
    reader inClass = constant(in.u2(), kClass);
    reader inName = constant(in.u2(), kNameAndType);
    return text(inClass.u2()) == cls && text(inName.u2()) == method &&
           text(inName.u2()) == descriptor;
  }

  std::uint32_t methodref(const callInsertion& call) {
    const std::uint32_t cls = add(kClass, {utf8(call.calledClass)});
    const std::uint32_t nameAndType =
        add(kNameAndType, {utf8(call.calledMethod), utf8(call.calledDescriptor)});
    return add(kMethodref, {cls, nameAndType});
  }

  void write(writer& out) const {
    out.u2(static_cast<std::uint32_t>(count_));
    out.append(original_);
    out.append(added_.bytes());
  }

 private:
  // What follows the tag of a constant of the class file.
  reader constant(std::uint32_t index, std::uint32_t tag) const {
    require(index < constants_.size());
    reader in(constants_[index]);
    require(in.u1() == tag);
    return in;
  }

  // How many numbers the constant takes besides its own.
  std::size_t readConstant(reader& in, std::size_t index) {
    switch (in.u1()) {
      case kUtf8: {
        const byteSpan text = in.take(in.u2());
        // Never null, not even for an empty text: that marks what is not a text.
        texts_[index] = {reinterpret_cast<const char*>(text.data()), text.size()};
        return 0;
      }
      case 5:  // Long
      case 6:  // Double
        in.take(8);
        return 1;
      case kClass:
      case 8:   // String
      case 16:  // MethodType
      case 19:  // Module
      case 20:  // Package
        in.take(2);
        return 0;
      case 15:  // MethodHandle
        in.take(3);
        return 0;
      case 3:  // Integer
      case 4:  // Float
      case 9:  // Fieldref
      case kMethodref:
      case 11:  // InterfaceMethodref
      case kNameAndType:
      case 17:  // Dynamic
      case 18:  // InvokeDynamic
        in.take(4);
        return 0;
      default:
        throw refusal();
    }
  }

  std::uint32_t utf8(std::string_view text) {
    writer constant;
    constant.u1(kUtf8);
    constant.u2(static_cast<std::uint32_t>(text.size()));
    constant.append({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    return number(constant);
  }
  std::uint32_t add(std::uint32_t tag, std::initializer_list<std::uint32_t> indices) {
    writer constant;
    constant.u1(tag);
    for (const std::uint32_t each : indices) {
      constant.u2(each);
    }
    return number(constant);
  }
  // The number of the constant, which is added once; who writes it finds out when it is too large.
  std::uint32_t number(const writer& constant) {
    std::string key(constant.bytes().begin(), constant.bytes().end());
    const auto [known, isNew] =
        numbers_.try_emplace(std::move(key), static_cast<std::uint32_t>(count_));
    if (isNew) {
      ++count_;
      added_.append(constant.bytes());
    }
    return known->second;
  }

  std::vector<std::string_view> texts_;  // by number; without data what is not a text
  std::vector<byteSpan> constants_;      // by number; from the tag on, empty for none
  std::size_t count_;                    // the number after the last constant
  byteSpan original_;
  writer added_;
  std::map<std::string, std::uint32_t> numbers_;  // of those that are added
};

// The instructions of a call, aligned so that all others keep their alignment.
std::vector<std::uint8_t> instructionsOf(const callInsertion& call, std::uint32_t methodref) {
  writer out;
  for (const std::uint8_t each : call.arguments) {
    if (each < kShortForms) {
      out.u1(kAload0 + each);
    } else {
      out.u1(kAload);
      out.u1(each);
    }
  }
  out.u1(kInvokestatic);
  out.u2(methodref);
  while (out.bytes().size() % kAlignment != 0) {
    out.u1(kNop);
  }
  return out.take();
}

// Where in the code the call goes.
std::uint32_t placeIn(byteSpan code, callPlace place, const constantPool& constants) {
  if (place == callPlace::start) {
    return 0;
  }
  reader in(code);
  require(in.u1() == kAload0 && in.u1() == kInvokespecial);
  require(constants.isMethod(in.u2(), "java/lang/Object", "<init>", "()V"));
  return static_cast<std::uint32_t>(code.size() - in.left().size());
}

// Moves the code of one method from some place on, and what refers to it, by so many bytes. Before
// that place nothing jumps, and no variable begins but at the start.
class codeShift {
 public:
  codeShift(std::uint32_t from, std::uint32_t by, std::uint32_t length)
      : from_(from), by_(by), length_(length) {
    require(length > from && length <= kMost - by);
  }

  void exceptionTable(reader& in, writer& out) const {
    const std::uint32_t count = copyCount(in, out);
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::uint32_t start = in.u2();
      const std::uint32_t last = in.u2();
      require(start >= from_ || last <= from_);
      out.u2(instruction(start));
      out.u2(end(last));
      out.u2(instruction(in.u2()));
      out.u2(in.u2());  // the class
    }
  }

  // What is inserted belongs to the line of what it stands before.
  void lineNumbers(reader& in, writer& out) const {
    const std::uint32_t count = copyCount(in, out);
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::uint32_t start = in.u2();
      out.u2(start == from_ ? start : instruction(start));
      out.u2(in.u2());
    }
  }

  // Of the table with types as well: both have the same form. What was there from the start, the
  // arguments, is there in what is inserted, too.
  void localVariables(reader& in, writer& out) const {
    const std::uint32_t count = copyCount(in, out);
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::uint32_t start = in.u2();
      const std::uint32_t length = in.u2();
      require(start + length <= length_);
      const std::uint32_t moved = start <= from_ ? start : start + by_;
      out.u2(moved);
      out.u2(end(start + length) - moved);
      out.append(in.take(6));  // name, type, variable
    }
  }

  // Only the first frame has a distance from the start of the code, the others from the one before.
  // None is before what is inserted.
  void stackMap(reader& in, writer& out) const {
    const std::uint32_t count = copyCount(in, out);
    for (std::uint32_t i = 0; i < count; ++i) {
      frame(in, out, i == 0 ? by_ : 0);
    }
  }

 private:
  static std::uint32_t copyCount(reader& in, writer& out) {
    const std::uint32_t count = in.u2();
    out.u2(count);
    return count;
  }

  std::uint32_t instruction(std::uint32_t at) const {
    require(at < length_);
    return at < from_ ? at : at + by_;
  }
  // Of what goes up to there.
  std::uint32_t end(std::uint32_t at) const {
    require(at <= length_);
    return at <= from_ ? at : at + by_;
  }

  void frame(reader& in, writer& out, std::uint32_t by) const {
    const std::uint32_t type = in.u1();
    if (type <= kSameFrame) {
      shortFrame(out, moved(type, by), 0, kSameFrameExtended);
      return;
    }
    if (type <= kOneStackItem) {
      shortFrame(out, moved(type - kSameFrame - 1, by), kSameFrame + 1, kOneStackItemExtended);
      types(in, out, 1);
      return;
    }
    require(type > kReserved);
    out.u1(type);
    out.u2(moved(in.u2(), by));
    if (type == kOneStackItemExtended) {
      types(in, out, 1);
    } else if (type > kAppended) {
      types(in, out, copyCount(in, out));
      types(in, out, copyCount(in, out));
    } else if (type > kSameFrameExtended) {
      types(in, out, type - kSameFrameExtended);
    }
  }
  // The distance of a frame; that of the first one, which is moved, is its place.
  std::uint32_t moved(std::uint32_t distance, std::uint32_t by) const {
    require(by == 0 || distance >= from_);
    return distance + by;
  }
  // A frame whose type tells the distance while that is short.
  static void shortFrame(writer& out, std::uint32_t distance, std::uint32_t firstType,
                         std::uint32_t extendedType) {
    if (distance <= kSameFrame) {
      out.u1(firstType + distance);
    } else {
      out.u1(extendedType);
      out.u2(distance);
    }
  }
  void types(reader& in, writer& out, std::uint32_t count) const {
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::uint32_t type = in.u1();
      require(type <= kLastType);
      out.u1(type);
      if (type == kObjectType) {
        out.u2(in.u2());
      } else if (type == kUninitializedType) {
        out.u2(instruction(in.u2()));  // where it was made
      }
    }
  }

  std::uint32_t from_;
  std::uint32_t by_;
  std::uint32_t length_;
};

using tableShift = void (codeShift::*)(reader&, writer&) const;

// How an attribute of the code is moved; null for those that are omitted.
tableShift shiftOf(std::string_view attribute) {
  if (attribute == "LineNumberTable") {
    return &codeShift::lineNumbers;
  }
  if (attribute == "LocalVariableTable" || attribute == "LocalVariableTypeTable") {
    return &codeShift::localVariables;
  }
  return attribute == "StackMapTable" ? &codeShift::stackMap : nullptr;
}

void shiftAttributes(const codeShift& shift, const constantPool& constants, reader& in,
                     writer& out) {
  const std::uint32_t count = in.u2();
  std::uint32_t kept = 0;
  writer attributes;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t name = in.u2();
    reader body(in.take(in.u4()));
    const tableShift move = shiftOf(constants.text(name));
    if (move == nullptr) {
      continue;
    }
    writer shifted;
    (shift.*move)(body, shifted);
    require(body.left().empty());
    attributes.u2(name);
    attributes.attributeBody(shifted);
    ++kept;
  }
  out.u2(kept);
  out.append(attributes.bytes());
}

// The body of a Code attribute with the call in it.
writer codeWith(const callInsertion& call, constantPool& constants, reader in) {
  const std::uint32_t maxStack = in.u2();
  const std::uint32_t maxLocals = in.u2();
  const byteSpan code = in.take(in.u4());
  for (const std::uint8_t each : call.arguments) {
    require(each < maxLocals);
  }
  const std::vector<std::uint8_t> inserted = instructionsOf(call, constants.methodref(call));
  require(code.size() <= kMost && inserted.size() <= kMost);
  const std::uint32_t place = placeIn(code, call.place, constants);
  const codeShift shift(place, static_cast<std::uint32_t>(inserted.size()),
                        static_cast<std::uint32_t>(code.size()));
  writer out;
  out.u2(std::max(maxStack, static_cast<std::uint32_t>(call.arguments.size())));
  out.u2(maxLocals);
  out.u4(static_cast<std::uint32_t>(inserted.size() + code.size()));
  out.append(code.first(place));
  out.append(inserted);
  out.append(code.subspan(place));
  shift.exceptionTable(in, out);
  shiftAttributes(shift, constants, in, out);
  require(in.left().empty());
  return out;
}

// Copies what a class or a member has as attributes; gives whether there is code among them, which
// gets the call. Null for no call.
bool copyAttributes(const callInsertion* call, constantPool& constants, reader& in, writer& out) {
  bool hasCode = false;
  const std::uint32_t count = in.u2();
  out.u2(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t name = in.u2();
    const std::uint32_t length = in.u4();
    const byteSpan body = in.take(length);
    out.u2(name);
    if (constants.text(name) == "Code" && call != nullptr) {
      out.attributeBody(codeWith(*call, constants, reader(body)));
      hasCode = true;
    } else {
      out.u4(length);
      out.append(body);
    }
  }
  return hasCode;
}

// Copies the fields or the methods; `insertions` is empty for fields.
void copyMembers(std::span<const callInsertion> insertions, constantPool& constants,
                 std::vector<bool>& isInserted, reader& in, writer& out) {
  const std::uint32_t count = in.u2();
  out.u2(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    out.u2(in.u2());  // the modifiers
    const std::uint32_t name = in.u2();
    const std::uint32_t descriptor = in.u2();
    out.u2(name);
    out.u2(descriptor);
    const auto call =
        std::find_if(insertions.begin(), insertions.end(), [&](const callInsertion& each) {
          return each.method == constants.text(name) &&
                 each.descriptor == constants.text(descriptor);
        });
    const bool isNamed = call != insertions.end();
    if (copyAttributes(isNamed ? &*call : nullptr, constants, in, out)) {
      isInserted[static_cast<std::size_t>(call - insertions.begin())] = true;
    }
  }
}

changedClass changed(byteSpan classFile, std::span<const callInsertion> insertions) {
  reader in(classFile);
  writer out;
  out.append(in.take(8));  // the magic number and the version
  require(reader(classFile).u4() == kMagic);
  constantPool constants(in);

  changedClass result;
  result.isInserted.resize(insertions.size());
  writer rest;
  rest.append(in.take(6));  // modifiers, this class, its superclass
  const std::uint32_t interfaces = in.u2();
  rest.u2(interfaces);
  rest.append(in.take(std::size_t{2} * interfaces));
  copyMembers({}, constants, result.isInserted, in, rest);
  copyMembers(insertions, constants, result.isInserted, in, rest);
  copyAttributes(nullptr, constants, in, rest);
  require(in.left().empty());

  constants.write(out);
  out.append(rest.bytes());
  result.bytes = out.take();
  return result;
}

}  // namespace

std::optional<changedClass> insertCalls(std::span<const std::uint8_t> classFile,
                                        std::span<const callInsertion> insertions) {
  try {
    return changed(classFile, insertions);
  } catch (const refusal&) {
    return std::nullopt;
  }
}

}  // namespace support
