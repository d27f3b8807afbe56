// A process as the kernel's folder shows it, in a temporary folder; by default this process itself,
// so that signals and sockets are real.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace control::testing {

namespace fs = std::filesystem;

class fakeProcess {
 public:
  static constexpr int kInner = 7;  // as it sees itself

  fakeProcess() : fakeProcess(::getpid()) {}
  explicit fakeProcess(pid_t given) : number(given) {
    std::string name = fs::temp_directory_path() / "fakeProcess-XXXXXX";
    base = ::mkdtemp(name.data());
    folder = base / "proc" / std::to_string(number);
    root = base / "root";
    fs::create_directories(root / "tmp");
    fs::create_directories(base / "cwd");
    fs::create_directories(folder / "fd");
    fs::create_directory_symlink(root, folder / "root");
    fs::create_directory_symlink(base / "cwd", folder / "cwd");
    writeStatus("S (sleeping)", "0000000000000004");
    writeWords("cmdline", "java|-Xmx1g|example.Main|");
    write("environ", "");
    write("maps", "");
  }
  fakeProcess(const fakeProcess&) = delete;
  fakeProcess& operator=(const fakeProcess&) = delete;
  ~fakeProcess() { fs::remove_all(base); }

  void write(const std::string& file, const std::string& text) const {
    std::ofstream(folder / file) << text;
  }
  // The same for a list of words, each with a '|' at its end here.
  void writeWords(const std::string& file, std::string words) const {
    std::replace(words.begin(), words.end(), '|', '\0');
    write(file, words);
  }
  void writeStatus(const std::string& state, const std::string& caught) const {
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    write("status", "Name:\tjava\nState:\t" + state + "\nUid:\t5\t" + user + "\t5\t5\nGid:\t6\t" +
                        group + "\t6\t6\nGroups:\t20 4 \nNSpid:\t" + std::to_string(number) + "\t" +
                        std::to_string(kInner) + "\nSigCgt:\t" + caught + "\n");
  }
  std::string processes() const { return base / "proc"; }
  fs::path temporary() const { return root / "tmp"; }

  pid_t number;
  fs::path base;
  fs::path folder;
  fs::path root;
};

}  // namespace control::testing
