// Gives any bytes as a tar archive to the reader of archives, with small limits. The only thing
// that may be thrown is inputError, and no file is larger than the limit.
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "../check.h"
#include "archive.h"
#include "input.h"

namespace {

namespace fs = std::filesystem;

// The bytes as a .tar.gz, which goes with it.
class packed {
 public:
  packed(const std::uint8_t* data, std::size_t size) {
    std::string name = (fs::temp_directory_path() / "archiveFuzz-XXXXXX").string();
    const int descriptor = mkstemp(name.data());
    check(descriptor >= 0, "a temporary file can be made");
    file_ = name;
    gzFile out = gzdopen(descriptor, "wb1");
    check(out != nullptr, "there is memory for zlib");
    check(size == 0 || gzwrite(out, data, static_cast<unsigned>(size)) > 0, "it can be written");
    check(gzclose(out) == Z_OK, "it can be closed");
  }
  ~packed() { fs::remove(file_); }
  packed(const packed&) = delete;
  packed& operator=(const packed&) = delete;

  const fs::path& file() const { return file_; }

 private:
  fs::path file_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const viewer::archiveLimits limits = {
      .fileBytes = 4096, .files = 20, .nameBytes = 256, .bytesInAnyCase = 1024UL * 1024};
  const packed archive(data, size);
  try {
    viewer::readArchive(
        archive.file(), [](const fs::path& name) { return name.extension() != ".skipped"; },
        [&](const fs::path& name, const std::string& text) {
          check(text.size() <= limits.fileBytes, "a file is within the limit");
          check(name.extension() != ".skipped", "only wanted files come");
        },
        limits);
  } catch (const viewer::inputError& e) {
    check(*e.what() != '\0', "an error says what is wrong");
  }
  return 0;
}
