// What the samples of a session come to: by the site that allocated and by class, each with what it
// grows by. Plain functions without state, callable on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "allocationGrowth.h"
#include "allocationReport.h"

namespace viewer {

// What several sites of the report have together; the report keeps them.
struct allocationSum {
  sampledAmount allocated;
  sampledAmount alive;
  sampledAmount young;
  std::vector<std::uint64_t> born;           // by the eighth of the session
  std::vector<std::uint64_t> course;         // at each of the report's points
  std::optional<std::uint64_t> growsBy;      // bytes per minute, see allocationGrowth.h
  bool isTooFew = false;                     // samples, to know that it does not grow
  std::vector<const allocationSite*> sites;  // the most alive first

  void add(const allocationReport& report, const allocationSite& site);
};

struct classAtSite {
  std::string className;
  allocationSum sum;
};

// A frame of the program, with all that was allocated in it or in code of the JDK that it called.
struct grownSite {
  std::optional<std::string> site;  // none for stacks that are not known
  allocationSum sum;
  std::vector<classAtSite> classes;  // what grows most first
  std::optional<double> most;        // bytes per minute; none when histograms have no class of it
};

struct siteOfClass {
  std::optional<std::string> site;
  allocationSum sum;
};

struct grownClass {
  std::string className;
  allocationSum sum;            // may be of no site: a class that only histograms have
  bool isByHistograms = false;  // its growth
  std::optional<double> histogramBytesPerMinute;
  std::optional<std::uint64_t> histogramBytes;  // live in the last one that has the class
  std::vector<siteOfClass> sites;               // what grows most first
};

// What the growth of a sum is known by; `most` is that of its classes, where it is known.
aliveEvidence evidenceOf(const allocationReport& report, const allocationSum& sum,
                         std::optional<double> most);
aliveEvidence evidenceOf(const allocationReport& report, const grownClass& group,
                         std::optional<double> most);

// What grows most first, then what has most alive that was allocated neither in the first nor in
// the last eighth of the session, then what has most alive, then what was allocated most.
std::vector<grownSite> grownSitesOf(const allocationSession& session);
std::vector<grownClass> grownClassesOf(const allocationSession& session);

// Whether there are enough histograms to know what classes grow by.
bool hasHistograms(const allocationSession& session);

// Paths of objects of this class; where some of them were allocated at the site, only those; where
// there are none, the paths of others that lead through one.
std::vector<const rootPath*> pathsOf(const allocationSession& session, const std::string& className,
                                     const std::optional<std::string>& site);

// Who holds the object of this class at the beginning of the path, or on it:
// "java.util.HashMap$Node.value <- java.util.HashMap$Node[12] <- static field a.B.c".
std::string pathText(const rootPath& path, const std::string& className);

// Whether the path is known to be of an object of the class that was allocated in the site's
// method.
bool isPathOf(const rootPath& path, const std::string& className,
              const std::optional<std::string>& site);

}  // namespace viewer
