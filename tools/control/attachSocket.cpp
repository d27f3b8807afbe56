#include "attachSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>
#include <sstream>
#include <string_view>
#include <thread>

#include "failure.h"
#include "interruption.h"

namespace control {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kTemporary = "/tmp";  // whatever the JVM's java.io.tmpdir is
constexpr std::string_view kVersion = "1";
constexpr std::size_t kArguments = 3;             // of every request
constexpr std::size_t kLongestArgument = 1024;    // before JDK 24 no JVM takes more
constexpr std::size_t kLongestAnswer = 1U << 20;  // bytes
constexpr milliseconds kPause{20};
constexpr milliseconds kLook{200};
constexpr std::size_t kShown = 120;  // of an answer that is not understood

// The file that has a JVM take SIGQUIT for a request to listen. Deleted with its owner.
class trigger {
 public:
  trigger(const process& target, int temporary)
      : name_(".attach_pid" + std::to_string(target.innerNumber())) {
    // A JVM looks in its working directory first.
    descriptor working;
    try {
      working = target.workingDirectory();
    } catch (const failure&) {
      // Then it looks elsewhere.
    }
    if (working && make(working.get(), target.owner())) {
      folder_ = std::move(working);
    } else if (make(temporary, target.owner())) {
      folder_ = descriptor(::fcntl(temporary, F_DUPFD_CLOEXEC, 0));
    } else {
      error_ = errno;
    }
  }
  trigger(const trigger&) = delete;
  trigger& operator=(const trigger&) = delete;
  ~trigger() {
    if (folder_) {
      ::unlinkat(folder_.get(), name_.c_str(), 0);
    }
  }

  bool isMade() const { return folder_.get() >= 0; }
  const std::string& name() const { return name_; }
  int error() const { return error_; }

 private:
  // One that is there already will do if the JVM takes it for the user's own.
  bool make(int folder, const identity& owner) const {
    const descriptor made(::openat(folder, name_.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct stat there = {};
    return made ||
           (errno == EEXIST && ::fstatat(folder, name_.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(there.st_mode) && there.st_uid == owner.user);
  }

  std::string name_;
  descriptor folder_;
  int error_ = 0;
};

void addWords(std::istream&& text, const std::string& before, std::vector<std::string>& words) {
  for (std::string word; text >> word;) {
    words.push_back(before + word);
  }
}

// The words that the JVM takes for its own: those behind name the program and are its own.
std::vector<std::string> optionsOfCommand(const std::vector<std::string>& command) {
  static const std::set<std::string_view> withValue{"-cp",
                                                    "-classpath",
                                                    "--class-path",
                                                    "-p",
                                                    "--module-path",
                                                    "--add-modules",
                                                    "--limit-modules",
                                                    "--add-reads",
                                                    "--add-exports",
                                                    "--add-opens",
                                                    "--patch-module",
                                                    "--upgrade-module-path",
                                                    "--source",
                                                    "--enable-native-access",
                                                    "--illegal-native-access"};
  std::vector<std::string> options;
  for (std::size_t i = 1; i < command.size(); ++i) {
    const std::string& word = command[i];
    if (word == "-jar" || word == "-m" || word == "--module" ||
        !(word.starts_with('-') || word.starts_with('@'))) {
      break;
    }
    options.push_back(word);
    i += withValue.contains(word) ? 1 : 0;
  }
  return options;
}

// Whether the word names a file in this way; `file` is then its path.
bool isFile(std::string_view word, std::string_view way, std::string_view& file) {
  if (!word.starts_with(way) || word.size() == way.size()) {
    return false;
  }
  file = word.substr(way.size());
  return true;
}

// The start of a file of options, as the JVM finds it; empty when that cannot be read.
std::string optionFile(const process& target, const targetFiles& files, const std::string& path) {
  constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
  descriptor file;
  if (path.starts_with('/')) {
    file = files.open(path, kFlags);
  } else {
    try {
      file =
          descriptor(::openat(target.workingDirectory().get(), path.c_str(), kFlags | O_NOFOLLOW));
    } catch (const failure&) {
      return {};
    }
  }
  struct stat there = {};
  if (!file || ::fstat(file.get(), &there) != 0 || !S_ISREG(there.st_mode)) {
    return {};
  }
  std::string text(1 << 16, '\0');
  const ssize_t length = ::read(file.get(), text.data(), text.size());
  text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return text;
}

// What the JVM takes its options from, in their order.
std::vector<std::string> optionsOf(const process& target, const targetFiles& files) {
  std::vector<std::string> words;
  addWords(std::istringstream(target.variable("JAVA_TOOL_OPTIONS")), "", words);
  addWords(std::istringstream(target.variable("JDK_JAVA_OPTIONS")), "", words);
  for (const std::string& word : optionsOfCommand(target.words())) {
    std::string_view file;
    const bool hasNames = isFile(word, "-XX:Flags=", file);  // of flags, without -XX:
    if (hasNames || isFile(word, "@", file) || isFile(word, "-XX:VMOptionsFile=", file)) {
      const std::string text = optionFile(target, files, std::string(file));
      addWords(std::istringstream(text), hasNames ? "-XX:" : "", words);
    } else {
      words.push_back(word);
    }
  }
  addWords(std::istringstream(target.variable("_JAVA_OPTIONS")), "", words);
  return words;
}

// Whether the last of the words that name this flag of the VM sets it.
bool isSet(const std::vector<std::string>& words, std::string_view flag) {
  bool is = false;
  for (const std::string_view word : words) {
    if (word.starts_with("-XX:") && word.size() == 5 + flag.size() && word.substr(5) == flag) {
      is = word[4] == '+';
    }
  }
  return is;
}

std::string shown(const std::string& text) {
  std::string shown = text.substr(0, kShown);
  std::replace_if(
      shown.begin(), shown.end(),
      [](char each) { return static_cast<unsigned char>(each) < ' ' || each == '\x7f'; }, ' ');
  return shown + (text.size() > kShown ? "..." : "");
}

std::string seconds(milliseconds time) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) + " s";
}

}  // namespace

attachSocket::attachSocket(const process& target, const targetFiles& files)
    : attachSocket(target, files, waits()) {}

attachSocket::attachSocket(const process& target, const targetFiles& files, waits waiting)
    : target_(target),
      files_(files),
      patience_(waiting),
      temporary_(files.open(kTemporary, O_PATH | O_DIRECTORY)),
      name_(".java_pid" + std::to_string(target.innerNumber())) {
  if (!temporary_) {
    throw noConnection(std::string("its folder /tmp cannot be opened: ") + reasonOf(errno));
  }
  requireListener();
}

attachSocket::vmReply attachSocket::ask(const std::vector<std::string>& request,
                                        const action& onSending) const {
  std::string text(kVersion);
  text += '\0';
  for (std::size_t i = 0; i <= kArguments; ++i) {
    const std::string word = i < request.size() ? request[i] : std::string();
    if (word.size() > kLongestArgument) {
      throw failure("a JVM accepts at most " + std::to_string(kLongestArgument) +
                    " characters in one piece, and '" + shown(word) + "' has " +
                    std::to_string(word.size()));
    }
    text += word;
    text += '\0';
  }
  const descriptor socket = connect();
  onSending();
  if (::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(text.size())) {
    throw noConnection(reasonOf(errno));
  }
  const std::string got = answer(socket.get());
  vmReply reply;
  const auto [end, error] = std::from_chars(got.data(), got.data() + got.size(), reply.code);
  if (error != std::errc() || end == got.data() + got.size() || *end != '\n') {
    throw noConnection("unexpected answer '" + shown(got) + "'");
  }
  reply.text = std::string(end + 1, got.data() + got.size());
  return reply;
}

attachSocket::loadResult attachSocket::load(const std::string& library, const std::string& options,
                                            const action& onSending) const {
  constexpr std::string_view kReturned = "return code: ";
  const vmReply reply =
      ask({"load", library, library.starts_with('/') ? "true" : "false", options}, onSending);
  loadResult loaded{std::nullopt, reply.text};
  std::string_view text = reply.text;
  // JDK 8 has the number alone.
  text.remove_prefix(text.starts_with(kReturned) ? kReturned.size() : 0);
  int code = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), code);
  if (reply.code == 0 && error == std::errc() && (end == text.end() || *end == '\n')) {
    loaded.code = code;
  } else if (reply.text.empty()) {
    loaded.text = "error " + std::to_string(reply.code);
  }
  return loaded;
}

// Connects to the socket that is there; the error number when that cannot be done.
descriptor attachSocket::tryToConnect(int& error) const {
  struct stat there = {};
  if (::fstatat(temporary_.get(), name_.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
    error = errno;
    return {};
  }
  const bool isOwn = there.st_uid == target_.owner().user;
  const auto foreign = [&] {
    return noConnection("'/tmp/" + name_ + "' is not its socket, but was created by user " +
                        std::to_string(there.st_uid) + "; delete it");
  };
  if (!S_ISSOCK(there.st_mode) || (!isOwn && there.st_uid != 0)) {
    throw foreign();
  }
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(temporary_.get()) + '/' + name_;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);  // shorter than 50 characters
  descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto* const any = static_cast<const sockaddr*>(static_cast<const void*>(&address));
  if (!socket || ::connect(socket.get(), any, sizeof(address)) != 0) {
    error = errno;
    if (error == EACCES && !isOwn) {
      throw foreign();  // left by a process of root's that had the same number
    }
    return {};
  }
  error = 0;
  requireOwner(socket.get());
  return socket;
}

// Containers may share a folder, and JVMs in them have the same number.
void attachSocket::requireOwner(int socket) const {
  ucred owner = {};
  socklen_t size = sizeof(owner);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &owner, &size) != 0) {
    throw noConnection(reasonOf(errno));
  }
  if ((owner.uid != target_.owner().user && owner.uid != 0) ||
      (owner.pid != 0 && owner.pid != target_.number())) {
    throw noConnection("'/tmp/" + name_ + "' is the socket of process " +
                       std::to_string(owner.pid) + ", user " + std::to_string(owner.uid));
  }
}

descriptor attachSocket::connect() const {
  const auto end = steady_clock::now() + patience_.toAnswer;
  for (;;) {
    int error = 0;
    descriptor socket = tryToConnect(error);
    if (socket) {
      return socket;
    }
    requireUninterrupted();
    // Others are asking as well.
    if (error != EAGAIN || steady_clock::now() >= end) {
      requireUsable();
      throw noConnection(reasonOf(error));
    }
    std::this_thread::sleep_for(kPause);
  }
}

void attachSocket::requireListener() const {
  int error = 0;
  if (tryToConnect(error) || error == EAGAIN) {
    return;
  }
  if (error != ENOENT && error != ECONNREFUSED) {
    throw noConnection(reasonOf(error));
  }
  requireWillListen();
  const trigger trigger(target_, temporary_.get());
  if (!trigger.isMade()) {
    throw noConnection("'/tmp/" + trigger.name() +
                       "' cannot be created: " + reasonOf(trigger.error()));
  }
  if (!target_.signal(SIGQUIT)) {
    throw noConnection("cannot send it a signal: " + reasonOf(errno));
  }
  const auto end = steady_clock::now() + patience_.toListen;
  while (!tryToConnect(error) && error != EAGAIN) {
    requireUsable();
    if (steady_clock::now() >= end) {
      throw noConnection(
          "it is not listening after " + seconds(patience_.toListen) +
          ": it is very busy, or was started with -XX:+DisableAttachMechanism and has"
          " printed its threads on standard output");
    }
    std::this_thread::sleep_for(kPause);
  }
}

void attachSocket::requireWillListen() const {
  requireUsable();
  if (!target_.catchesQuit()) {
    // The request begins with this signal, which would end a JVM that does not handle it yet.
    throw failure("JVM " + std::to_string(target_.number()) +
                  " is still starting, or was started with -Xrs");
  }
  if (isSet(optionsOf(target_, files_), "DisableAttachMechanism")) {
    throw noConnection(
        "it was started with -XX:+DisableAttachMechanism; restart it without that option");
  }
  if (::faccessat(temporary_.get(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
    throw noConnection(errno == EROFS
                           ? "its folder /tmp, where it would listen, is read-only"
                           : "it cannot write to its folder /tmp, where it would listen: " +
                                 reasonOf(errno));
  }
}

void attachSocket::requireUsable() const {
  requireUninterrupted();
  if (!target_.isAlive()) {
    throw noConnection("it has ended");
  }
  if (target_.isStopped()) {
    throw noConnection("it is stopped; resume it with: kill -CONT " +
                       std::to_string(target_.number()));
  }
}

// All that comes until the JVM closes the connection, which it has to within the time, however much
// comes before.
std::string attachSocket::answer(int socket) const {
  const auto end = steady_clock::now() + patience_.toAnswer;
  std::string text;
  std::array<char, 4096> piece;
  for (;;) {
    pollfd waiting{socket, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(kLook.count()));
    if (steady_clock::now() >= end) {
      requireUsable();
      throw noConnection((text.empty() ? "no answer after " : "no complete answer after ") +
                         seconds(patience_.toAnswer));
    }
    if (ready == 0 || (ready < 0 && errno == EINTR)) {
      requireUsable();
      continue;
    }
    const ssize_t count = ::recv(socket, piece.data(), piece.size(), 0);
    if (count == 0) {
      break;
    }
    if (count < 0) {
      throw noConnection(target_.isAlive() ? reasonOf(errno) : "it has ended");
    }
    text.append(piece.data(), static_cast<std::size_t>(count));
    if (text.size() > kLongestAnswer) {
      throw noConnection("its answer is too long");
    }
  }
  if (text.empty()) {
    throw noConnection(target_.isAlive() ? "it closed the connection without an answer"
                                         : "it has ended");
  }
  return text;
}

failure attachSocket::noConnection(const std::string& reason) const {
  return failure("no connection to JVM " + std::to_string(target_.number()) + ": " + reason);
}

}  // namespace control
