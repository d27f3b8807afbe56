#include "reportPage.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ostream>
#include <system_error>

#include "descriptorBuffer.h"
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

// Gives an errno, 0 when all is written.
template <typename action>
int writeTo(int descriptor, const action& writeReport) {
  descriptorBuffer buffer(descriptor);
  std::ostream page(&buffer);
  page << kPageBeforeReport;
  writeReport(page);
  page << kPageAfterReport;
  page.flush();
  return buffer.problem();
}

template <typename action>
void writeWholeFile(const action& writeReport, const fs::path& file) {
  expectFileOrNothing(file);
  constexpr std::string_view kEnd = ".part";
  std::string unfinished = file.string() + ".XXXXXX" + std::string(kEnd);
  const int descriptor = mkostemps(unfinished.data(), int(kEnd.size()), O_CLOEXEC);
  if (descriptor < 0) {
    fail(file, errno);
  }
  int problem = writeTo(descriptor, writeReport);
  if (close(descriptor) != 0 && problem == 0) {
    problem = errno;
  }
  if (problem == 0 && std::rename(unfinished.c_str(), file.c_str()) != 0) {
    problem = errno;
  }
  if (problem != 0) {
    unlink(unfinished.c_str());
    fail(file, problem);
  }
}

}  // namespace

void writePage(const profile& all, const fs::path& file, thrownIn where) {
  writeWholeFile([&](std::ostream& page) { writeJson(all, page, where, recordForm::shared); },
                 file);
}

void writePage(const comparison& both, const fs::path& file) {
  writeWholeFile([&](std::ostream& page) { writeJson(both, page); }, file);
}

}  // namespace viewer
