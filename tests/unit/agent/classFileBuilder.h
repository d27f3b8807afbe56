// Class files for tests, put together by hand.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test {

using bytes = std::vector<std::uint8_t>;

// Numbers as class files hold them, and bytes as they are.
class byteList {
 public:
  byteList& u1(std::size_t value) { return number(value, 1); }
  byteList& u2(std::size_t value) { return number(value, 2); }
  byteList& u4(std::size_t value) { return number(value, 4); }
  byteList& append(const bytes& more) {
    made.insert(made.end(), more.begin(), more.end());
    return *this;
  }
  byteList& text(std::string_view more) { return append({more.begin(), more.end()}); }

  bytes made;

 private:
  byteList& number(std::size_t value, unsigned size) {
    for (unsigned shift = size * 8; shift > 0; shift -= 8) {
      made.push_back(static_cast<std::uint8_t>(value >> (shift - 8)));
    }
    return *this;
  }
};

struct methodCode {
  std::size_t maxStack = 3;
  std::size_t maxLocals = 3;
  bytes instructions{0xB1};                            // return
  std::vector<std::array<std::size_t, 4>> handlers{};  // start, end, handler, class
  std::vector<std::pair<std::string, bytes>> attributes{};
};

class classFileBuilder {
 public:
  // The number of a constant, which is added each time.
  std::size_t utf8(std::string_view text) {
    constants_.u1(1).u2(text.size()).text(text);
    return count_++;
  }
  std::size_t constant(std::size_t tag, const std::vector<std::size_t>& indices) {
    constants_.u1(tag);
    for (const std::size_t each : indices) {
      constants_.u2(each);
    }
    return count_++;
  }
  // Of eight bytes, which takes two numbers.
  void longConstant() {
    constants_.u1(5).u4(1).u4(2);
    count_ += 2;
  }
  void field(std::string_view name) { addMember(fields_, fieldCount_, name, "I"); }
  void abstractMethod(std::string_view name, std::string_view descriptor) {
    addMember(methods_, methodCount_, name, descriptor);
  }
  // The names of the attributes are looked up, or added.
  void method(std::string_view name, std::string_view descriptor, const methodCode& code) {
    const std::size_t nameNumber = utf8(name);
    const std::size_t descriptorNumber = utf8(descriptor);
    byteList body;
    body.u2(code.maxStack).u2(code.maxLocals);
    body.u4(code.instructions.size()).append(code.instructions);
    body.u2(code.handlers.size());
    for (const auto& handler : code.handlers) {
      for (const std::size_t each : handler) {
        body.u2(each);
      }
    }
    body.u2(code.attributes.size());
    for (const auto& [attribute, content] : code.attributes) {
      body.u2(named(attribute)).u4(content.size()).append(content);
    }
    methods_.u2(0).u2(nameNumber).u2(descriptorNumber).u2(1);
    methods_.u2(named("Code")).u4(body.made.size()).append(body.made);
    ++methodCount_;
  }
  std::size_t named(const std::string& attribute) {
    for (const auto& [name, number] : names_) {
      if (name == attribute) {
        return number;
      }
    }
    names_.emplace_back(attribute, utf8(attribute));
    return names_.back().second;
  }

  bytes build() {
    const std::size_t source = named("SourceFile");
    byteList out;
    out.u4(0xCAFEBABE).u2(0).u2(61).u2(count_).append(constants_.made);
    out.u2(0x21).u2(1).u2(2).u2(1).u2(2);  // an interface, whatever it is
    out.u2(fieldCount_).append(fields_.made);
    out.u2(methodCount_).append(methods_.made);
    out.u2(1).u2(source).u4(2).u2(source);
    return out.made;
  }

 private:
  void addMember(byteList& out, std::size_t& count, std::string_view name,
                 std::string_view descriptor) {
    const std::size_t nameNumber = utf8(name);
    out.u2(0x400).u2(nameNumber).u2(utf8(descriptor)).u2(1);
    out.u2(named("Deprecated")).u4(0);
    ++count;
  }

  byteList constants_;
  byteList fields_;
  byteList methods_;
  std::size_t count_ = 1;
  std::size_t fieldCount_ = 0;
  std::size_t methodCount_ = 0;
  std::vector<std::pair<std::string, std::size_t>> names_;
};

inline const std::vector<std::string> kThrowableConstructors{
    "(Ljava/lang/String;)V", "()V", "(Ljava/lang/String;Ljava/lang/Throwable;)V",
    "(Ljava/lang/Throwable;)V", "(Ljava/lang/String;Ljava/lang/Throwable;ZZ)V"};

// A class with these constructors, which call that of Object and return.
inline bytes throwableWith(const std::vector<std::string>& constructors) {
  classFileBuilder builder;
  const std::size_t object = builder.constant(7, {builder.utf8("java/lang/Object")});
  const std::size_t named = builder.constant(12, {builder.utf8("<init>"), builder.utf8("()V")});
  const std::size_t init = builder.constant(10, {object, named});
  for (const std::string& each : constructors) {
    builder.method("<init>", each,
                   {.instructions = byteList().u1(0x2A).u1(0xB7).u2(init).u1(0xB1).made});
  }
  return builder.build();
}

}  // namespace test
