#include "allocationForm.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "allocationSites.h"
#include "allocationWords.h"

namespace viewer {
namespace {

class allocationWriter {
 public:
  allocationWriter(jsonWriter& json, const allocationSession& session, recordForm form)
      : json_(json),
        session_(session),
        classes_(grownClassesOf(session)),
        isShared_(form == recordForm::shared) {}

  void write() {
    json_.beginObject().member("source", session_.source()).member("name", session_.name);
    json_.member("filtered", session_.isFiltered);
    if (session_.samples) {
      writeHead(*session_.samples);
    } else {
      writeNoHead();
    }
    writeSites();
    writeClasses();
    writeGrowth();
    writePaths();
    if (isShared_) {
      writeValues(json_, "frames", frames_);
    }
    writeValues(json_, "head", allocationHead(session_));
    constexpr std::size_t kNamed = 5;  // classes without a path
    std::vector<std::string> missing = allocationOmissions(session_);
    for (const auto& more : {growthNotes(session_), pathNotes(session_, classes_, kNamed)}) {
      missing.insert(missing.end(), more.begin(), more.end());
    }
    writeValues(json_, "missing", missing);
    json_.endObject();
  }

 private:
  void writeGrowsBy(const allocationSum& sum) {
    json_.member("growsBy", sum.growsBy).member("tooFew", sum.isTooFew);
  }

  void writeAmount(std::string_view name, const sampledAmount& amount) {
    json_.key(name).beginObject().member("samples", amount.samples);
    json_.member("bytes", amount.bytes).member("objects", amount.objects);
    const estimateRange range = rangeOf(amount.bytes, amount.samples, amount.objects);
    json_.member("low", range.low).member("high", range.high).endObject();
  }

  void writeAllocated(const sampledAmount& amount) {
    json_.key("allocated").beginObject().member("samples", amount.samples);
    json_.member("bytes", amount.bytes).endObject();
  }

  void writeHead(const allocationReport& report) {
    json_.member("started", report.startedAt).member("written", report.writtenAt);
    json_.member("ended", report.endedAt).member("shutdown", report.shutdownAt);
    json_.member("interval", report.intervalBytes);
    json_.key("settings").beginObject();
    json_.member("intervalBytes", report.settings.intervalBytes);
    json_.member("liveSamples", report.settings.liveSamples).endObject();
    json_.member("collections", report.collections);
    json_.member("afterCollection", report.isAfterCollection);
    writeAllocated(report.allocated);
    writeAmount("alive", report.alive);
    writeAmount("young", report.young);
    json_.key("afterHooks");
    if (report.released) {
      json_.beginObject().member("samples", report.released->amount.samples);
      json_.member("bytes", report.released->amount.bytes);
      json_.member("objects", report.released->amount.objects);
      json_.member("collections", report.released->collections).endObject();
    } else {
      json_.null();
    }
    writeArray(json_, "points", report.points, [&](const allocationPoint& one) {
      json_.beginObject().member("at", one.at).member("collections", one.collections);
      json_.member("alive", one.alive).endObject();
    });
    json_.key("otherSites").beginObject().member("sites", report.others.sites);
    writeAllocated(report.others.allocated);
    writeAmount("alive", report.others.alive);
    writeAmount("young", report.others.young);
    json_.endObject();
    writeCost(report);
  }

  void writeCost(const allocationReport& report) {
    json_.key("cost").beginObject().member("processorNanos", report.cost.processorNanos);
    json_.member("handlerNanos", report.cost.handlerNanos);
    json_.member("samples", report.cost.samples).member("text", costText(report)).endObject();
    const omittedSamples& omitted = report.omitted;
    json_.key("omitted").beginObject().member("lost", omitted.lost);
    json_.member("lostBytes", omitted.lostBytes).member("failed", omitted.failed);
    json_.member("sites", omitted.sites).member("stacks", omitted.stacks);
    json_.member("classes", omitted.classes).member("names", omitted.names);
    json_.member("thinned", omitted.thinned).endObject();
  }

  void writeNoHead() {
    for (const char* name :
         {"started", "written", "ended", "shutdown", "interval", "settings", "collections",
          "afterCollection", "allocated", "alive", "young", "afterHooks"}) {
      json_.key(name).null();
    }
    json_.key("points").beginArray().endArray();
    for (const char* name : {"otherSites", "cost", "omitted"}) {
      json_.key(name).null();
    }
  }

  std::size_t frameOf(const std::string& frame) {
    const auto [found, isNew] = numbers_.emplace(frame, frames_.size());
    if (isNew) {
      frames_.push_back(frame);
    }
    return found->second;
  }

  void writeFrames(const std::vector<std::string>& frames) {
    writeArray(json_, "stack", frames, [&](const std::string& frame) {
      if (isShared_) {
        json_.value(frameOf(frame));
      } else {
        json_.value(frame);
      }
    });
  }

  // One of the report's sites: what grows most first, as their places do.
  void writeSite(const allocationSite& site, const grownSite& place, const classAtSite& of) {
    json_.beginObject().member("class", site.className).member("site", place.site);
    if (site.stack) {
      writeFrames(session_.samples->stacks[*site.stack].frames);
      json_.member("cut", session_.samples->stacks[*site.stack].isCut);
    } else {
      json_.key("stack").null();
      json_.member("cut", false);
    }
    writeGrowsBy(of.sum);
    writeAllocated(site.allocated);
    writeAmount("alive", site.alive);
    writeAmount("young", site.young);
    json_.key("afterHooks");
    if (site.afterHooks) {
      json_.beginObject().member("samples", site.afterHooks->samples);
      json_.member("bytes", site.afterHooks->bytes);
      json_.member("objects", site.afterHooks->objects).endObject();
    } else {
      json_.null();
    }
    writeValues(json_, "ages", site.ages);
    writeValues(json_, "seconds", site.seconds);
    writeValues(json_, "born", site.born);
    if (!isShared_) {
      json_.member("courseFrom", site.courseFrom);
      writeValues(json_, "course", site.course);
    }
    writeArray(json_, "threads", site.threads, [&](const allocationThread& one) {
      json_.beginObject().member("name", one.name).member("samples", one.samples).endObject();
    });
    json_.endObject();
  }

  // Of the first places the page draws the course.
  void writePlace(const grownSite& place, std::size_t rank) {
    constexpr std::size_t kDrawn = 100;
    json_.beginObject().member("site", place.site);
    writeGrowsBy(place.sum);
    writeAllocated(place.sum.allocated);
    writeAmount("alive", place.sum.alive);
    writeAmount("young", place.sum.young);
    writeValues(json_, "born", place.sum.born);
    writeValues(json_, "course", rank < kDrawn ? place.sum.course : std::vector<std::uint64_t>());
    writeArray(json_, "classes", place.classes, [&](const classAtSite& one) {
      json_.beginObject().member("class", one.className);
      writeGrowsBy(one.sum);
      writeAllocated(one.sum.allocated);
      writeAmount("alive", one.sum.alive);
      writePathNumbers(one.className, place.site);
      const auto paths = pathsOf(session_, one.className, place.site);
      json_.member("pathsAreOfSite",
                   !paths.empty() && isPathOf(*paths.front(), one.className, place.site));
      json_.endObject();
    });
    json_.endObject();
  }

  void writePathNumbers(const std::string& className, const std::optional<std::string>& site) {
    writeArray(json_, "paths", pathsOf(session_, className, site),
               [&](const rootPath* path) { json_.value(path - session_.paths->paths.data()); });
  }

  void writeSites() {
    const std::vector<grownSite> places = grownSitesOf(session_);
    std::size_t rank = 0;
    writeArray(json_, "growing", places,
               [&](const grownSite& place) { writePlace(place, rank++); });
    json_.key("sites").beginArray();
    for (const grownSite& place : places) {
      for (const classAtSite& of : place.classes) {
        for (const allocationSite* site : of.sum.sites) {
          writeSite(*site, place, of);
        }
      }
    }
    json_.endArray();
  }

  void writeClasses() {
    writeArray(json_, "classes", classes_, [&](const grownClass& one) {
      json_.beginObject().member("class", one.className);
      writeGrowsBy(one.sum);
      json_.member("from", one.isByHistograms ? "histograms" : "samples");
      writeAllocated(one.sum.allocated);
      writeAmount("alive", one.sum.alive);
      writeAmount("young", one.sum.young);
      json_.member("histogramBytes", one.histogramBytes);
      writeArray(json_, "sites", one.sites, [&](const siteOfClass& at) {
        json_.beginObject().member("site", at.site);
        writeGrowsBy(at.sum);
        writeAmount("alive", at.sum.alive);
        json_.endObject();
      });
      writePathNumbers(one.className, {});
      json_.endObject();
    });
  }

  // A whole number of bytes that a double of the reader holds exactly.
  void writeMeasured(std::string_view name, const std::optional<double>& value) {
    constexpr double kMost = 9e15;
    if (value && std::isfinite(*value)) {
      json_.member(name, std::llround(std::clamp(*value, -kMost, kMost)));
    } else {
      json_.key(name).null();
    }
  }

  void writeFit(const std::optional<double>& fit) {
    json_.key("fitPercent");
    if (fit && std::isfinite(*fit)) {
      json_.value(std::llround(100 * std::clamp(*fit, 0.0, 1.0)));
    } else {
      json_.null();
    }
  }

  void writeGrowth() {
    json_.key("growth").beginArray();
    if (session_.growth) {
      for (const classGrowth& one : session_.growth->classes) {
        json_.beginObject().member("class", one.className);
        writeMeasured("bytesPerMinute", one.bytesPerMinute);
        writeFit(one.fit);
        writeValues(json_, "bytes", one.bytes);
        writeValues(json_, "objects", one.objects);
        json_.endObject();
      }
    }
    json_.endArray().key("histograms");
    if (!session_.growth) {
      json_.null();
      return;
    }
    const growthReport& growth = *session_.growth;
    json_.beginObject().member("source", growth.source).member("problem", growth.problem);
    json_.member("intervalMillis", growth.intervalMillis).member("askedMillis", growth.askedMillis);
    json_.member("maxHeap", growth.maxHeap);
    writeMeasured("bytesPerMinute", growth.heap.bytesPerMinute);
    writeFit(growth.heap.fit);
    json_.member("fullAt", growth.heap.fullAt).member("otherClasses", growth.otherClasses);
    writeArray(json_, "points", growth.points, [&](const growthPoint& one) {
      json_.beginObject().member("at", one.at).member("liveBytes", one.liveBytes);
      json_.member("liveObjects", one.liveObjects).member("tookMillis", one.tookMillis);
      json_.endObject();
    });
    json_.endObject();
  }

  void writePath(const rootPath& path) {
    json_.beginObject().member("class", path.className).member("samples", path.samples);
    json_.member("bytes", path.bytes);
    writeArray(json_, "chain", path.chain, [&](const pathLink& one) {
      json_.beginObject().member("class", one.className).member("field", one.field);
      json_.member("index", one.index).member("skipped", one.skipped).endObject();
    });
    json_.key("root").beginObject().member("kind", path.root.kind).member("text", path.root.text);
    json_.member("thread", path.root.thread).endObject();
    writeFrames(path.stack);
    json_.member("allocated", path.allocatedAt)
        .member("text", pathText(path, path.className))
        .endObject();
  }

  void writePaths() {
    json_.key("paths").beginArray();
    if (session_.paths) {
      for (const rootPath& one : session_.paths->paths) {
        writePath(one);
      }
    }
    json_.endArray().key("pathSearch");
    if (!session_.paths) {
      json_.null();
      return;
    }
    const pathReport& paths = *session_.paths;
    json_.beginObject().member("source", paths.source).member("from", paths.from);
    json_.member("problem", paths.problem).member("tookMillis", paths.tookMillis);
    json_.member("samples", paths.samples).member("withRoot", paths.withRoot);
    json_.member("own", paths.own).member("otherPaths", paths.otherPaths).endObject();
  }

  jsonWriter& json_;
  const allocationSession& session_;
  const std::vector<grownClass> classes_;
  const bool isShared_;
  std::unordered_map<std::string, std::size_t> numbers_;
  std::vector<std::string> frames_;
};

}  // namespace

void writeAllocations(jsonWriter& json, const allocationSession& session, recordForm form) {
  allocationWriter(json, session, form).write();
}

}  // namespace viewer
