#include "reportPage.h"

#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

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

// The page takes the place of an older one, and of nothing else: not of a device or a link.
void expectFileOrNothing(const fs::path& file) {
  std::error_code problem;
  const fs::file_type type = fs::symlink_status(file, problem).type();
  if (type == fs::file_type::none) {
    fail(file, problem.value());
  }
  if (type != fs::file_type::not_found && type != fs::file_type::regular) {
    throw std::runtime_error(
        fmt::format("{} cannot be written: expected a file or a new name, found {}", file.string(),
                    type == fs::file_type::directory ? "a folder"
                    : type == fs::file_type::symlink ? "a symbolic link"
                                                     : "a pipe or device"));
  }
}

// A new file beside `file`, which only its owner may read.
fs::path newFileBeside(const fs::path& file) {
  constexpr std::string_view kEnd = ".part";
  std::string name = file.string() + ".XXXXXX" + std::string(kEnd);
  const int descriptor = mkostemps(name.data(), int(kEnd.size()), 0);
  if (descriptor < 0) {
    fail(file, errno);
  }
  close(descriptor);
  return name;
}

template <typename content>
void writeFile(const content& shown, const fs::path& file) {
  std::ofstream page(file, std::ios::binary | std::ios::trunc);
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
  expectFileOrNothing(file);
  const fs::path unfinished = newFileBeside(file);
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
