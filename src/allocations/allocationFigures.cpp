#include "allocations/allocationFigures.h"

#include <unordered_map>
#include <vector>

namespace agent {

void allocationFigures::keep(const allocationFigures& session) {
  for (const auto& [cls, more] : session.rows) {
    const bool hasRoom = rows.size() < kMostRows || rows.count(cls) > 0;
    rows[hasRoom ? cls : std::string()].allocated.add(more.allocated);
  }
  collections += session.collections;
  samples += session.samples;
  lost += session.lost;
  failed += session.failed;
  processorNanos += session.processorNanos;
  handlerNanos += session.handlerNanos;
}

void allocationFigures::addSession(const allocationRecorder& recorder,
                                   const survivingSamples& surviving,
                                   const collectionRounds& rounds, const instruments::cost& cost) {
  const std::vector<amounts> alive = surviving.alive(rounds);
  std::unordered_map<std::uint32_t, sums> byClass;
  for (std::size_t i = 0; i < surviving.sites().size(); ++i) {
    const survivingSamples::site& site = surviving.sites()[i];
    sums& cls = byClass[site.key.cls];
    cls.allocated.add(site.allocated);
    cls.alive.add(alive[i]);
  }
  for (const auto& [cls, more] : byClass) {
    if (more.allocated.samples > 0) {
      sums& row = rows[recorder.className(cls)];
      row.allocated.add(more.allocated);
      row.alive.add(more.alive);
    }
  }
  const allocationRecorder::counts& counted = recorder.counted();
  collections += rounds.ended();
  samples += counted.samples.load();
  lost += counted.lost.load();
  failed += counted.failed.load();
  handlerNanos += counted.nanos.load();
  processorNanos += cost.processorNanos;
}

}  // namespace agent
