#include "reportPage.h"

#include <cerrno>
#include <fstream>
#include <system_error>

#include "jsonForm.h"
#include "pageParts.h"

namespace viewer {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const fs::path& file, int problem) {
  throw std::system_error(problem, std::generic_category(), file.string() + " cannot be written");
}

template <typename content>
void writeFile(const content& shown, const fs::path& file) {
  std::ofstream page(file, std::ios::binary | std::ios::trunc);
  std::error_code ignored;  // a file system without permissions is no reason to fail
  fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write, ignored);
  page << kPageBeforeReport;
  writeJson(shown, page);
  page << kPageAfterReport;
  page.close();
  if (!page) {
    fail(file, errno);
  }
}

template <typename content>
void writeWholeFile(const content& shown, const fs::path& file) {
  fs::path unfinished = file;
  unfinished += ".part";
  try {
    writeFile(shown, unfinished);
    std::error_code problem;
    fs::rename(unfinished, file, problem);
    if (problem) {
      fail(file, problem.value());
    }
  } catch (...) {
    std::error_code ignored;
    fs::remove(unfinished, ignored);
    throw;
  }
}

}  // namespace

void writePage(const profile& all, const fs::path& file) {
  writeWholeFile(all, file);
}

void writePage(const comparison& both, const fs::path& file) {
  writeWholeFile(both, file);
}

}  // namespace viewer
