#include "frames.h"

namespace fake {

namespace {

jint slotsOf(std::string_view signature) {
  return signature == "J" || signature == "D" ? 2 : 1;
}

}  // namespace

frame makeFrame(virtualMachine& vm, object* self, std::string_view className,
                std::string_view method, const std::vector<namedValue>& arguments,
                const std::vector<namedValue>& locals) {
  javaClass* const type = self == nullptr ? vm.classNamed(className) : self->type;
  type->sourceFile = std::string(className.substr(className.rfind('.') + 1)) + ".java";
  std::string signature = "(";
  for (const namedValue& each : arguments) {
    signature += each.signature;
  }
  fake::method* const code =
      vm.makeMethod(type, method, signature + ")V", {.isStatic = self == nullptr});
  code->lines = {{0, 41}, {10, 42}, {20, 43}};
  code->variables.emplace();
  frame made{.code = code, .location = 10};
  jint slot = 0;
  const auto add = [&](const namedValue& each) {
    code->variables->push_back({each.name, each.signature, slot});
    if (each.value.index() != 0) {
      made.locals[slot] = each.value;
    }
    slot += slotsOf(each.signature);
  };
  if (self != nullptr) {
    add({"this", signatureOf(className), self});
  }
  for (const namedValue& each : arguments) {
    add(each);
  }
  for (const namedValue& each : locals) {
    add(each);
  }
  code->maxLocals = slot;
  return made;
}

object* makeObjectWith(virtualMachine& vm, std::string_view className,
                       const std::vector<namedValue>& fields) {
  javaClass* const type = vm.makeClass(className);
  object* const made = vm.makeObject(type);
  for (const namedValue& each : fields) {
    field* const declared = vm.makeField(type, each.name, each.signature);
    if (each.value.index() != 0) {
      vm.setField(made, declared, each.value);
    }
  }
  return made;
}

}  // namespace fake
