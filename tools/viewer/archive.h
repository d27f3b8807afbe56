// Archives that run folders are packed into: .tar.gz, as tar and others write them (ustar, with
// long names of pax or GNU). Nothing is unpacked into the file system. Plain functions without
// state, callable on any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace viewer {

// What an archive may have. One that has more is damaged, or made to fill the memory or the time.
struct archiveLimits {
  std::uint64_t fileBytes = 256UL * 1024 * 1024;  // of one file, in memory while it is read
  std::uint64_t files = 1'000'000;
  std::uint64_t nameBytes = 4096;
  // Bytes that it may unpack to: so many in any case, and beyond them for each byte of the archive.
  std::uint64_t bytesInAnyCase = 64UL * 1024 * 1024;
  std::uint64_t bytesForEach = 200;
};

// By its name: ".tar.gz" or ".tgz".
bool isArchive(const std::filesystem::path& file);

// Calls `visit` with the name and the text of each regular file that `wanted` accepts, in the order
// of the archive. Links, devices and folders are passed over. Throws inputError for an archive that
// is damaged, ends early or is beyond the limits: what was visited before was in it.
void readArchive(
    const std::filesystem::path& archive,
    const std::function<bool(const std::filesystem::path& name)>& wanted,
    const std::function<void(const std::filesystem::path& name, std::string text)>& visit,
    const archiveLimits& limits = {});

}  // namespace viewer
