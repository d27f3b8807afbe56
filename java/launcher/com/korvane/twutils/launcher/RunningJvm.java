package com.korvane.twutils.launcher;

import com.sun.tools.attach.AttachNotSupportedException;
import com.sun.tools.attach.VirtualMachine;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.AccessDeniedException;
import java.nio.file.FileSystemException;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.stream.Stream;

/** A JVM of this machine, as its process shows it, and the way to its management beans. */
final class RunningJvm {
  private static final Path PROCESSES = Path.of("/proc");
  private static final int SIGQUIT = 3;

  /** What a file's name ends in that was replaced or deleted while it is in use. */
  private static final String MAYBE_DELETED = "( \\(deleted\\))?";

  private final long pid;
  private final Path folder;

  private RunningJvm(long pid) {
    this.pid = pid;
    this.folder = PROCESSES.resolve(Long.toString(pid));
  }

  /** The JVMs of this user that have the companion, by process id; they notice nothing. */
  static List<RunningJvm> withCompanion() throws IOException {
    List<RunningJvm> found = new ArrayList<>();
    Object self = ownerOf(PROCESSES.resolve("self"));
    try (Stream<Path> folders = Files.list(PROCESSES)) {
      folders
          .map(path -> path.getFileName().toString())
          .filter(name -> name.matches("[0-9]+"))
          .map(name -> new RunningJvm(Long.parseLong(name)))
          .sorted((a, b) -> Long.compare(a.pid, b.pid))
          .forEach(
              jvm -> {
                try {
                  if (ownerOf(jvm.folder).equals(self) && jvm.hasAgent() && jvm.hasCompanion()) {
                    found.add(jvm);
                  }
                } catch (IOException e) {
                  // It has ended meanwhile.
                }
              });
    }
    return found;
  }

  /**
   * The JVM with this process id.
   *
   * @throws IOException with one sentence on why it cannot be profiled
   */
  static RunningJvm of(long pid) throws IOException {
    RunningJvm jvm = new RunningJvm(pid);
    try {
      if (!ownerOf(jvm.folder).equals(ownerOf(PROCESSES.resolve("self")))) {
        throw new IOException("process " + pid + " belongs to another user");
      }
      if (!jvm.hasMapped("libjvm.so")) {
        throw new IOException("process " + pid + " is not a JVM; see: twprofile list");
      }
      if (!jvm.hasAgent()) {
        throw new IOException(
            "JVM " + pid + " was started without the agent; start it with: twprofile run -- "
                + jvm.command());
      }
      if (!jvm.hasCompanion()) {
        throw new IOException(
            "JVM " + pid + " has the agent, but not the companion; start it with: twprofile run -- "
                + jvm.command());
      }
      return jvm;
    } catch (NoSuchFileException e) {
      throw new IOException("no such process: " + pid + "; see: twprofile list", e);
    } catch (FileSystemException e) {
      throw new IOException("cannot inspect process " + pid + ": " + reasonOf(e), e);
    }
  }

  private static String reasonOf(FileSystemException e) {
    boolean isDenied = e instanceof AccessDeniedException;
    return e.getReason() != null ? e.getReason() : isDenied ? "permission denied" : e.toString();
  }

  long pid() {
    return pid;
  }

  /** The words that the process was started with, without those that profiling has added. */
  String command() throws IOException {
    StringBuilder words = new StringBuilder();
    for (String word : read("cmdline").split("\0")) {
      boolean added =
          word.matches("-agentpath:.*/libjavanativeagent\\.so(=.*)?")
              || word.matches("-javaagent:.*/javanativeagent\\.jar(=.*)?");
      if (!added) {
        words.append(words.length() == 0 ? "" : " ").append(word);
      }
    }
    return words.toString();
  }

  /**
   * Connects to the companion in the JVM.
   *
   * @throws IOException with one sentence on why that cannot be done
   */
  CompanionConnection connect() throws IOException {
    if (!handlesQuit()) {
      // Attaching begins with this signal, which would end a JVM that does not handle it yet.
      throw new IOException("JVM " + pid + " is still starting, or was started with -Xrs");
    }
    try {
      VirtualMachine machine = VirtualMachine.attach(Long.toString(pid));
      try {
        return CompanionConnection.open(machine.startLocalManagementAgent());
      } finally {
        machine.detach();
      }
    } catch (AttachNotSupportedException | IOException e) {
      throw new IOException("no connection to JVM " + pid + ": " + e.getMessage(), e);
    }
  }

  private boolean hasAgent() throws IOException {
    return hasMapped("libjavanativeagent.so");
  }

  /** A JVM keeps the jars that it has loaded classes from open. */
  private boolean hasCompanion() throws IOException {
    try (Stream<Path> files = Files.list(folder.resolve("fd"))) {
      for (Path file : (Iterable<Path>) files::iterator) {
        if (linkOf(file).matches(".*/javanativeagent\\.jar" + MAYBE_DELETED)) {
          return true;
        }
      }
    }
    return false;
  }

  /** Empty for a file that was closed meanwhile. */
  private static String linkOf(Path file) {
    try {
      return Files.readSymbolicLink(file).toString();
    } catch (IOException e) {
      return "";
    }
  }

  private boolean hasMapped(String library) throws IOException {
    return read("maps").lines().anyMatch(line -> line.matches(".*/" + library + MAYBE_DELETED));
  }

  private boolean handlesQuit() throws IOException {
    Optional<String> caught =
        read("status").lines().filter(line -> line.startsWith("SigCgt:")).findFirst();
    return caught.isPresent()
        && (Long.parseUnsignedLong(caught.get().substring(7).trim(), 16) >> (SIGQUIT - 1) & 1) == 1;
  }

  private String read(String file) throws IOException {
    return new String(Files.readAllBytes(folder.resolve(file)), StandardCharsets.UTF_8);
  }

  private static Object ownerOf(Path process) throws IOException {
    return Files.getAttribute(process, "unix:uid");
  }
}
