#include "memoryTest.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method

namespace test {

jint memoryTest::start(const memorySession& s) {
  return vm.native([&](JNIEnv* jni) {
    return TW_NATIVE(startMemoryLeaksProfileSession)(
        jni, nullptr, static_cast<jboolean>(s.enable), s.duration, s.id,
        vm.ref(vm.makeString(s.name)), s.topClasses, vm.ref(vm.makeString(s.excludeClasses)),
        vm.ref(vm.makeString(s.excludePackages)), vm.ref(vm.makeString(s.includeClasses)),
        vm.ref(vm.makeString(s.includePackages)));
  });
}

jint memoryTest::stop() {
  return stop(reportPath());
}

jint memoryTest::stop(const std::string& path) {
  return vm.native([&](JNIEnv* jni) {
    return TW_NATIVE(stopMemoryLeaksProfileSession)(jni, nullptr, 7, vm.ref(vm.makeString(path)));
  });
}

jint memoryTest::stopWithoutPath() {
  return vm.native([&](JNIEnv* jni) {
    return TW_NATIVE(stopMemoryLeaksProfileSession)(jni, nullptr, 7, nullptr);
  });
}

void memoryTest::tag(fake::object* object) {
  vm.native([&](JNIEnv* jni) { TW_NATIVE(setObjectTag)(jni, nullptr, vm.ref(object)); });
}

void memoryTest::collect(int times) {
  for (int i = 0; i < times; ++i) {
    vm.garbageCollectionFinish();
  }
}

void memoryTest::begin(const memorySession& session, const char* options) {
  ASSERT_EQ(load(options), 0);
  ASSERT_EQ(start(session), 1);
  collect();
  ASSERT_EQ(memory()->gcCounter(), 1U);
}

fake::object* memoryTest::object(std::string_view className, jlong size) {
  fake::object* const made = vm.makeObject(className);
  made->size = size;
  return made;
}

fake::object* memoryTest::tagged(std::string_view className, jlong size) {
  fake::object* const made = object(className, size);
  tag(made);
  return made;
}

std::vector<std::string> memoryTest::classes() const {
  std::vector<std::string> names;
  const nlohmann::ordered_json root = report();
  for (const auto& each : root.at("topNMemoryleakClass").items()) {
    names.push_back(each.key());
  }
  return names;
}

nlohmann::ordered_json memoryTest::reported(const std::string& name) const {
  return report().at("topNMemoryleakClass").value(name, nlohmann::ordered_json());
}

std::vector<std::string> memoryTest::survivors(const std::string& name) const {
  std::vector<std::string> texts;
  const auto generations = reported(name).value("gcsurvived", nlohmann::ordered_json::array());
  for (const auto& each : generations) {
    texts.push_back(each.at("GCCounter").dump() + ":" + each.at("count").dump() + ":" +
                    each.at("size").get<std::string>());
  }
  return texts;
}

std::vector<std::string> memoryTest::linesOf(std::string_view function) const {
  std::vector<std::string> lines;
  for (const logRecord& each : log()) {
    if (each.function == function) {
      lines.push_back(each.severity + ": " + each.message);
    }
  }
  return lines;
}

}  // namespace test
