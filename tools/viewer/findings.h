// What a run comes to, in one sentence for each question that a reader has first: what holds the
// program up, what fails, what leaks. Plain functions without state, callable on any thread.
#pragma once

#include <string>
#include <vector>

#include "profile.h"

namespace viewer {

struct finding {
  const char* question;
  const char* view;  // the view of the page that has more
  std::string text;  // one or more sentences; UTF-8, printable
  bool isKnown =
      false;  // otherwise `text` tells why not, and which option of `twprofile run` helps
};

// One for each question, in this order. Of several sessions of a kind the longest answers, or the
// worst where they do not tell their length; the text then has how many there are.
std::vector<finding> findingsOf(const profile& all, thrownIn where = thrownIn::outsideJdk);

}  // namespace viewer
