#include "archive.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "input.h"
#include "tableParts.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kBlock = 512;  // what tar counts in
using block = std::array<char, kBlock>;

// The bytes that a .gz file has packed.
class packedFile {
 public:
  packedFile(const std::filesystem::path& file, const archiveLimits& limits)
      : name_(toUtf8(file.string())), limits_(limits) {
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
      fail("cannot be read: " + std::generic_category().message(errno));
    }
    if (!S_ISREG(status.st_mode)) {
      close(descriptor);
      fail("expected a file, found a folder, pipe or device");
    }
    stream_ = gzdopen(descriptor, "rb");
    if (stream_ == nullptr) {
      close(descriptor);
      throw std::bad_alloc();
    }
    gzbuffer(stream_, kBuffer);
  }
  ~packedFile() { gzclose_r(stream_); }
  packedFile(const packedFile&) = delete;
  packedFile& operator=(const packedFile&) = delete;

  // Reads as much as there is room for; less only at the end of the file.
  std::size_t read(char* to, std::size_t size) {
    const int count = gzread(stream_, to, static_cast<unsigned>(size));
    int problem = Z_OK;
    const char* text = gzerror(stream_, &problem);
    if (count < 0 || problem == Z_BUF_ERROR) {
      fail(problem == Z_BUF_ERROR ? "expected the end of the archive, which is cut off"
                                  : fmt::format("expected a gzip file without damage: {}", text));
    }
    if (count > 0 && gzdirect(stream_) != 0) {
      fail("expected a gzip file, found other bytes");
    }
    unpacked_ += static_cast<std::uint64_t>(count);
    const auto packed = static_cast<std::uint64_t>(std::max<z_off_t>(gzoffset(stream_), 0));
    if (unpacked_ > limits_.bytesInAnyCase && unpacked_ / limits_.bytesForEach > packed) {
      fail(fmt::format("expected at most {} bytes for each byte of the archive, found more",
                       limits_.bytesForEach));
    }
    return static_cast<std::size_t>(count);
  }

  [[noreturn]] void fail(const std::string& problem) const {
    throw inputError(name_ + ": " + problem);
  }

 private:
  static constexpr unsigned kBuffer = 128 * 1024;

  std::string name_;
  archiveLimits limits_;
  gzFile stream_ = nullptr;
  std::uint64_t unpacked_ = 0;
};

std::string_view textAt(const block& header, std::size_t at, std::size_t size) {
  const std::string_view field(header.data() + at, size);
  return field.substr(0, field.find('\0'));
}

// A number in octal digits, or with the first bit set in 63 bits.
std::optional<std::uint64_t> numberAt(const block& header, std::size_t at, std::size_t size) {
  if ((static_cast<unsigned char>(header[at]) & 0x80U) != 0) {
    std::uint64_t number = static_cast<unsigned char>(header[at]) & 0x7FU;
    for (std::size_t i = at + 1; i < at + size; i++) {
      if (number >> 55U != 0) {
        return {};
      }
      number = number << 8U | static_cast<unsigned char>(header[i]);
    }
    return number;
  }
  std::string_view digits = textAt(header, at, size);
  digits.remove_prefix(std::min(digits.find_first_not_of(' '), digits.size()));
  digits = digits.substr(0, digits.find(' '));
  std::uint64_t number = 0;
  const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), number, 8);
  return end.ec == std::errc() && end.ptr == digits.data() + digits.size() ? std::optional(number)
                                                                           : std::nullopt;
}

bool hasItsSum(const block& header) {
  constexpr std::size_t kAt = 148;
  constexpr std::size_t kSize = 8;
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < kBlock; i++) {
    sum += i >= kAt && i < kAt + kSize ? ' ' : static_cast<unsigned char>(header[i]);
  }
  return numberAt(header, kAt, kSize) == sum;
}

class tarReader {
 public:
  tarReader(const std::filesystem::path& archive, const archiveLimits& limits)
      : bytes_(archive, limits), limits_(limits) {}

  template <typename filter, typename visitor>
  void readAll(filter wanted, visitor visit) {
    block header{};
    for (std::uint64_t files = 0; nextHeader(header);) {
      const entry found = entryOf(header);
      if (found.type == 'L' || found.type == 'x') {
        takeLongName(found);
      } else if (found.type == '0' || found.type == '\0' || found.type == '7') {
        if (++files > limits_.files) {
          bytes_.fail(fmt::format("expected at most {} files, found more", limits_.files));
        }
        const std::filesystem::path name = takeName(header);
        const std::uint64_t size = std::exchange(longSize_, std::nullopt).value_or(found.size);
        wanted(name) ? visit(name, contentOf(size, toUtf8(name.string()))) : skip(size);
      } else {
        takeName(header);
        longSize_.reset();
        skip(found.type == 'g' || found.type == 'K' ? found.size : sizeOfSpecial(found));
      }
    }
    block rest{};  // to see that all that was packed is undamaged
    while (bytes_.read(rest.data(), kBlock) != 0) {
    }
  }

 private:
  struct entry {
    char type = '0';
    std::uint64_t size = 0;
  };

  // False at the two blocks of zeros that end an archive; one of them is enough.
  bool nextHeader(block& header) {
    fill(header.data(), kBlock);
    if (std::all_of(header.begin(), header.end(), [](char c) { return c == '\0'; })) {
      return false;
    }
    if (!hasItsSum(header)) {
      bytes_.fail(
          "expected a tar archive in the gzip file: a header is damaged or of another form");
    }
    return true;
  }

  entry entryOf(const block& header) const {
    const std::optional<std::uint64_t> size = numberAt(header, 124, 12);
    if (!size) {
      bytes_.fail("expected the size of a file in a tar header, found other bytes");
    }
    return {header[156], *size};
  }

  // Links, devices and folders have no content, whatever size they tell.
  static std::uint64_t sizeOfSpecial(const entry& found) {
    return found.type >= '1' && found.type <= '6' ? 0 : found.size;
  }

  std::filesystem::path takeName(const block& header) {
    if (!longName_.empty()) {
      return std::exchange(longName_, {});
    }
    const std::string name(textAt(header, 0, 100));
    const bool isUstar = std::memcmp(header.data() + 257, "ustar\0", 6) == 0;
    const std::string_view before = isUstar ? textAt(header, 345, 155) : std::string_view();
    return before.empty() ? name : std::string(before) + '/' + name;
  }

  // Of the file that comes next: its name, in a pax header with its size.
  void takeLongName(const entry& found) {
    const std::uint64_t most = limits_.nameBytes + (found.type == 'x' ? limits_.nameBytes : 0);
    if (found.size > most) {
      bytes_.fail(
          fmt::format("expected names of at most {} bytes, found a longer one", limits_.nameBytes));
    }
    const std::string text = contentOf(found.size, "a long name");
    if (found.type == 'L') {
      longName_ = text.substr(0, text.find('\0'));
      return;
    }
    // "LENGTH KEY=VALUE\n", the length being that of the line.
    for (std::size_t at = 0; at < text.size();) {
      std::size_t length = 0;
      const char* end = text.data() + text.size();
      const auto digits = std::from_chars(text.data() + at, end, length);
      const auto used = static_cast<std::size_t>(digits.ptr - (text.data() + at));
      if (digits.ec != std::errc() || digits.ptr == end || *digits.ptr != ' ' ||
          length > text.size() - at || length < used + 2) {
        bytes_.fail("expected lines of a length and a value in a pax header, found other bytes");
      }
      takeLine(std::string_view(text).substr(at + used + 1, length - used - 2));
      at += length;
    }
  }

  void takeLine(std::string_view line) {
    if (line.starts_with("path=")) {
      longName_ = line.substr(line.find('=') + 1);
    } else if (line.starts_with("size=")) {
      const std::string_view digits = line.substr(line.find('=') + 1);
      std::uint64_t size = 0;
      const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), size);
      if (end.ec != std::errc() || end.ptr != digits.data() + digits.size()) {
        bytes_.fail("expected a size in a pax header, found other bytes");
      }
      longSize_ = size;
    }
  }

  std::string contentOf(std::uint64_t size, const std::string& name) {
    if (size > limits_.fileBytes) {
      bytes_.fail(fmt::format("{}: expected files of at most {}, found one of {}", name,
                              sizeText(limits_.fileBytes), sizeText(size)));
    }
    // Piece by piece, for the size is what the archive tells.
    std::string text;
    while (text.size() < size) {
      const std::size_t start = text.size();
      const std::size_t piece = std::min<std::uint64_t>(size - start, kPiece);
      text.resize(start + piece);
      fill(text.data() + start, piece);
    }
    skipPadding(size);
    return text;
  }

  void skip(std::uint64_t size) {
    std::string piece(std::min<std::uint64_t>(size, kPiece), '\0');
    for (std::uint64_t left = size; left > 0;) {
      const std::size_t count = std::min<std::uint64_t>(left, piece.size());
      fill(piece.data(), count);
      left -= count;
    }
    skipPadding(size);
  }

  void skipPadding(std::uint64_t size) {
    block rest{};
    fill(rest.data(), (kBlock - size % kBlock) % kBlock);
  }

  void fill(char* to, std::size_t size) {
    if (size > 0 && bytes_.read(to, size) < size) {
      bytes_.fail("expected the end of the archive, which is cut off");
    }
  }

  static constexpr std::size_t kPiece = 1024UL * 1024;

  packedFile bytes_;
  archiveLimits limits_;
  std::string longName_;
  std::optional<std::uint64_t> longSize_;
};

}  // namespace

bool isArchive(const std::filesystem::path& file) {
  const std::string name = file.filename();
  return name.ends_with(".tar.gz") || name.ends_with(".tgz");
}

void readArchive(
    const std::filesystem::path& archive,
    const std::function<bool(const std::filesystem::path& name)>& wanted,
    const std::function<void(const std::filesystem::path& name, std::string text)>& visit,
    const archiveLimits& limits) {
  tarReader(archive, limits).readAll(wanted, visit);
}

}  // namespace viewer
