// The samples of an allocation profile by site, and which of their objects are alive.
#pragma once

#include <jvmti.h>

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include "allocations/collectionRounds.h"
#include "allocations/sampleQueue.h"
#include "instruments/stackTable.h"

namespace agent {

// What samples stand for.
struct amounts {
  std::uint64_t samples = 0;
  double bytes = 0;
  double objects = 0;

  void add(double moreBytes, double moreObjects) {
    ++samples;
    bytes += moreBytes;
    objects += moreObjects;
  }
  void add(const amounts& other) {
    samples += other.samples;
    bytes += other.bytes;
    objects += other.objects;
  }
};

// A class and the stack that allocates it.
struct allocationSite {
  std::uint32_t cls = 0;    // by allocationRecorder::className
  std::uint32_t stack = 0;  // by stackTable, 0 for one without room
  auto operator<=>(const allocationSite&) const = default;
};

// What is alive of a site, as of some moment.
struct siteState {
  static constexpr std::size_t kEighths = 8;

  amounts alive;                        // outlived a round
  amounts young;                        // no round has ended since
  std::vector<std::uint64_t> ages;      // [i]: samples that outlived 2^i to 2^(i+1)-1 rounds
  std::vector<std::uint64_t> seconds;   // the same by their age in seconds, [0] below 2
  std::array<double, kEighths> born{};  // bytes of `alive`, by eighth of the session
  std::map<std::uint32_t, std::uint64_t> threads;  // samples of `alive`
};

// Used by the profile's own thread and by control calls, under the profile's lock.
class survivingSamples {
 public:
  static constexpr std::size_t kMostSites = 10'000;
  static constexpr std::size_t kMostStacks = 10'000;
  static constexpr std::size_t kMostFrames = 65'536;
  static constexpr std::size_t kMostPoints = 120;
  static constexpr std::int64_t kFirstStep = 1'000'000'000;  // between two points, in nanoseconds

  struct point {
    std::int64_t at = 0;
    std::uint32_t collections = 0;
    double alive = 0;
  };
  struct site {
    allocationSite key;
    amounts allocated;
    std::size_t courseFrom = 0;  // index of a point
    std::vector<double> course;  // bytes of `alive` from there on
  };

  // What was there before must have been dropped.
  void begin(std::size_t limit, std::int64_t now);
  // Deletes all references; the sums stay.
  void drop(JNIEnv* jni);
  // Drops the sums as well, and their memory. References were dropped before.
  void release();

  // Takes over the reference of a sample.
  void add(jvmtiEnv* jvmti, JNIEnv* jni, const sampleQueue::entry& taken,
           const collectionRounds& rounds);

  // Lets go of the samples whose objects are gone.
  void removeDead(JNIEnv* jni);
  // Has a canary of now count for all that there is.
  void renewed(const collectionRounds& rounds);
  bool isOver() const { return live_.size() > limit_; }
  // Drops every second sample at random; each that stays stands for twice as much.
  void thinOut(JNIEnv* jni);

  // The course of the sites goes on to `now`. A point that is not due yet stays until the next one
  // only: however many are asked for, the points are spread over the whole session.
  void markPoint(const collectionRounds& rounds, std::int64_t now);
  std::int64_t nextPoint() const { return nextPoint_; }

  // The state of each site, by index, as of `now`. Sites without anything alive have an empty one.
  std::vector<siteState> states(const collectionRounds& rounds, std::int64_t now) const;
  // What has outlived a round, of each site by index.
  std::vector<amounts> alive(const collectionRounds& rounds) const;
  // What is alive of the samples that were taken before `time`, and have outlived `round`.
  std::vector<amounts> aliveSince(std::int64_t time, std::uint32_t round,
                                  const collectionRounds& rounds) const;

  // [0] is for samples that have no room.
  const std::vector<site>& sites() const { return sites_; }
  const std::vector<point>& points() const { return points_; }
  const instruments::stackTable& stacks() const { return stacks_; }
  std::size_t live() const { return live_.size(); }
  std::uint64_t droppedSites() const { return droppedSites_; }
  std::uint64_t thinned() const { return thinned_; }

 private:
  struct liveSample {
    jweak object;
    std::uint32_t site;  // its index
    std::uint32_t thread;
    std::uint32_t round;  // the first that it can outlive
    std::int64_t at;
    double bytes;
    double objects;
  };
  static std::uint32_t age(const liveSample& sample, const collectionRounds& rounds) {
    return rounds.ended() > sample.round ? rounds.ended() - sample.round : 0;
  }
  std::uint32_t indexOf(const allocationSite& key);
  void thinPoints();
  void dropLastPoint();

  std::size_t limit_ = 0;
  std::int64_t startedAt_ = 0;
  instruments::stackTable stacks_{kMostStacks, kMostFrames};
  std::map<allocationSite, std::uint32_t> indexes_;
  std::vector<site> sites_;
  std::vector<liveSample> live_;
  std::vector<point> points_;
  std::int64_t step_ = kFirstStep;
  std::int64_t nextPoint_ = 0;
  bool isLastEarly_ = false;
  std::uint64_t droppedSites_ = 0;
  std::uint64_t thinned_ = 0;
  std::minstd_rand random_;
};

}  // namespace agent
