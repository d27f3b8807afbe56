#include "exceptionForm.h"

#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace viewer {
namespace {

// JSON texts by number, each of them once.
class textPool {
 public:
  std::size_t add(std::string text) {
    const auto [found, isNew] = numbers_.emplace(std::move(text), texts_.size());
    if (isNew) {
      texts_.push_back(&found->first);
    }
    return found->second;
  }

  void write(jsonWriter& json, std::string_view name) const {
    writeArray(json, name, texts_, [&](const std::string* text) { json.raw(*text); });
  }

 private:
  std::unordered_map<std::string, std::size_t> numbers_;
  std::vector<const std::string*> texts_;
};

class recordWriter {
 public:
  recordWriter(jsonWriter& json, recordForm form) : json_(json), form_(form) {}

  void write(const exceptionRecord& one) {
    json_.beginObject().member("time", one.time).member("thread", one.thread);
    json_.member("class", one.className).member("message", one.message);
    json_.member("caught", one.caught);
    writeArray(json_, "frames", one.frames, [&](const exceptionFrame& frame) {
      write(json_, frames_, [&](jsonWriter& to) { writeFrame(to, frame); });
    });
    writeValues(json_, "ambiguous", one.ambiguous);
    json_.member("cut", one.isCut);
    if (form_ == recordForm::whole) {
      json_.member("raw", one.raw);
    }
    json_.endObject();
  }

  // What the records refer to.
  void writeShared() const {
    if (form_ == recordForm::shared) {
      frames_.write(json_, "frames");
      values_.write(json_, "values");
    }
  }

 private:
  // The object that `content` writes: here, or its number.
  template <typename action>
  void write(jsonWriter& json, textPool& pool, action content) {
    if (form_ == recordForm::whole) {
      content(json);
      return;
    }
    std::ostringstream text;
    jsonWriter inText(text);
    content(inText);
    json.value(pool.add(std::move(text).str()));
  }

  void writeAll(jsonWriter& json, std::string_view name, const std::vector<capturedValue>& values) {
    writeArray(json, name, values, [&](const capturedValue& one) {
      write(json, values_, [&](jsonWriter& to) { writeValue(to, one); });
    });
  }

  void writeFrame(jsonWriter& json, const exceptionFrame& frame) {
    json.beginObject().member("method", frame.method).member("file", frame.file);
    json.member("line", frame.line);
    const auto writeSection = [&](const char* name, const std::vector<capturedValue>& values) {
      if (!values.empty() || form_ == recordForm::whole) {
        writeAll(json, name, values);
      }
    };
    writeSection("fields", frame.fields);
    writeSection("arguments", frame.arguments);
    writeSection("locals", frame.locals);
    writeSection("threadLocals", frame.threadLocals);
    json.endObject();
  }

  void writeValue(jsonWriter& json, const capturedValue& one) {
    json.beginObject().member("name", one.name).member("type", one.type);
    if (one.fields) {
      writeAll(json, "fields", *one.fields);
    } else {
      json.member("value", one.value);
    }
    if (one.redacted) {
      json.member("redacted", one.redacted);
    }
    const auto addMark = [&json](std::string_view name, bool isSet) {
      if (isSet) {
        json.member(name, true);
      }
    };
    addMark("uncertain", one.isUncertain);
    addMark("notRead", one.isNotRead);
    addMark("notAvailable", one.isNotAvailable);
    addMark("static", one.isStatic);
    json.endObject();
  }

  jsonWriter& json_;
  recordForm form_;
  textPool frames_;
  textPool values_;
};

void writeAgent(jsonWriter& json, const agentCounts& counts) {
  json.beginObject().member("seen", counts.seen).member("filtered", counts.filtered);
  json.member("blackListed", counts.blackListed).member("overRate", counts.overRate);
  json.member("delivered", counts.delivered).member("cut", counts.cut);
  json.member("rethrown", counts.rethrown);
  json.key("failed").beginObject();
  for (const auto& [reason, count] : counts.failed) {
    json.member(reason, count);
  }
  json.endObject().endObject();
}

void writeCounts(jsonWriter& json, const throwCounts& counts) {
  json.member("thrown", counts.thrown).member("caught", counts.caught);
  json.member("uncaught", counts.uncaught).member("recorded", counts.recorded);
  json.member("rethrown", counts.rethrown).member("filtered", counts.filtered);
  json.member("blackListed", counts.blackListed).member("overRate", counts.overRate);
  json.member("failed", counts.failed).member("cut", counts.cut);
}

void writeCounts(jsonWriter& json, const std::optional<exceptionCounts>& counts) {
  json.key("counts");
  if (!counts) {
    json.null();
    return;
  }
  json.beginObject().member("mode", counts->isOfMade ? "made" : "thrown");
  json.member("begin", counts->begin).member("end", counts->end).member("runs", counts->runs);
  json.member("maxSites", counts->maxSites);
  json.key("total").beginObject();
  writeCounts(json, counts->total);
  json.endObject();
  writeArray(json, "classes", counts->classes, [&](const countedClass& one) {
    json.beginObject().member("class", one.className);
    writeCounts(json, one.counts);
    json.member("first", one.first).member("last", one.last).endObject();
  });
  json.key("other").beginObject();
  writeCounts(json, counts->other);
  json.endObject();
  json.member("note", counts->isOfMade ? std::optional(std::string(kOnlyMade)) : std::nullopt);
  json.endObject();
}

void writeGroup(jsonWriter& json, const exceptionGroup& group) {
  const throwCounts* counts = group.counts ? &*group.counts : nullptr;
  const auto count = [&](auto member) -> std::optional<std::uint64_t> {
    return counts == nullptr ? std::nullopt : std::optional<std::uint64_t>(counts->*member);
  };
  const auto knownCount = [&](auto member) -> std::optional<std::uint64_t> {
    return counts == nullptr ? std::nullopt : counts->*member;
  };
  json.beginObject().member("class", group.className);
  json.member("site", group.isBeyond ? std::optional(placeOf(group)) : group.site);
  json.member("otherSites", group.otherSites);
  writeValues(json, "throwingSites", group.throwing);
  json.member("indirect", group.isIndirect);
  json.member("thrown", count(&throwCounts::thrown));
  json.member("caught", knownCount(&throwCounts::caught));
  json.member("uncaught", knownCount(&throwCounts::uncaught));
  json.member("rethrown", count(&throwCounts::rethrown));
  json.member("count", group.records.size());
  json.member("recordsCaught", group.caught).member("recordsUncaught", group.uncaught);
  json.member("first", group.first).member("last", group.last);
  writeValues(json, "records", group.records);
  json.endObject();
}

}  // namespace

void writeExceptions(jsonWriter& json, const std::optional<exceptionLog>& log, thrownIn where,
                     recordForm form) {
  json.key("exceptions");
  if (!log) {
    json.null();
    return;
  }
  json.beginObject();
  writeValues(json, "sources", log->sources());
  const std::optional<captureEnd>& counted = log->counted();
  json.member("recorded", counted ? std::optional(counted->recorded) : std::nullopt);
  json.member("dropped", counted ? std::optional(counted->dropped) : std::nullopt);
  json.member("thrown", log->counts() ? std::optional(log->counts()->total.thrown) : std::nullopt);
  writeCounts(json, log->counts());
  json.key("agent");
  if (counted && counted->agent) {
    writeAgent(json, *counted->agent);
  } else {
    json.null();
  }
  writeValues(json, "losses", lossesOf(*log));
  writeArray(json, "groups", groupsOf(*log, where),
             [&](const exceptionGroup& group) { writeGroup(json, group); });
  recordWriter records(json, form);
  json.key("records").beginArray();
  for (std::size_t i = 0; i < log->size(); i++) {
    records.write(log->record(i));
  }
  json.endArray();
  records.writeShared();
  json.endObject();
}

}  // namespace viewer
