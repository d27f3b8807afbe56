package com.korvane.twutils.launcher;

import java.io.BufferedInputStream;
import java.io.ByteArrayOutputStream;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.Charset;
import java.nio.file.FileVisitResult;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.SimpleFileVisitor;
import java.nio.file.attribute.BasicFileAttributes;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Enumeration;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;

/**
 * Checks what profiling needs, one line for each point, with what to change. It runs on any Java
 * from 8 on.
 */
public final class Doctor {
  private static final String AGENT_GREETING = "Starting Java Native Agent";
  private static final long LITTLE_SPACE = 64L << 20;
  private static final int CLASSES_NAMED = 3;
  private static final long CAP_SYS_PTRACE = 1L << 19;
  private static final String FAULT = "FAULT";

  private final Path root;
  private final Path output;
  private final String limits;
  private final List<String> command;
  private boolean healthy = true;

  /**
   * @param root the folder that holds {@code lib}
   * @param output where results are to go
   * @param limits a line for each limit that the shell script has found, as "LEVEL SUBJECT TEXT";
   *     may be empty
   * @param command the command to be profiled; may be empty
   */
  Doctor(Path root, Path output, String limits, List<String> command) {
    this.root = root;
    this.output = output;
    this.limits = limits;
    this.command = command;
  }

  /**
   * The exit code is 1 when something keeps profiling from working. The shell script has checked
   * the words of the user.
   *
   * @param args the folder that holds {@code lib}, the output folder, the limits that the shell
   *     script has found, and the command
   */
  public static void main(String[] args) {
    try {
      List<String> command = Arrays.asList(args).subList(3, args.length);
      Doctor doctor = new Doctor(Paths.get(args[0]), Paths.get(args[1]), args[2], command);
      System.exit(doctor.examine() ? 0 : 1);
    } catch (IOException | IllegalArgumentException e) {
      System.err.println("twprofile: doctor: " + e.getMessage());
      System.exit(1);
    } catch (InterruptedException e) {
      System.exit(1);
    }
  }

  /** Prints all findings; false when one of them keeps profiling from working. */
  private boolean examine() throws IOException, InterruptedException {
    ok("Java", System.getProperty("java.version") + " in " + System.getProperty("java.home"));
    boolean built = checkFiles();
    if (built) {
      checkLibraries();
    }
    checkOutput();
    checkAttaching();
    printLimits();
    if (command.isEmpty()) {
      checkLoading(built, ownJava());
    } else {
      checkCommand(built);
    }
    return healthy;
  }

  /** Where JVMs listen for commands, and what root needs to reach those of other users. */
  private void checkAttaching() throws IOException {
    if (!isWritable(Paths.get("/tmp"))) {
      hint("attach", "'/tmp' cannot be written, so attach, status, start and stop do not work; as"
          + " root: chmod 1777 /tmp, or run the container with --tmpfs /tmp");
    }
    long user = -1;
    long capabilities = -1;
    for (String line : Files.readAllLines(Paths.get("/proc/self/status"))) {
      String[] words = line.split("\\s+");
      if (words[0].equals("Uid:")) {
        user = Long.parseLong(words[2]);
      } else if (words[0].equals("CapEff:")) {
        capabilities = Long.parseUnsignedLong(words[1], 16);
      }
    }
    if (user == 0 && (capabilities & CAP_SYS_PTRACE) == 0) {
      hint("attach", "root lacks the capability SYS_PTRACE here, so JVMs of other users cannot be"
          + " reached; start the container with --cap-add=SYS_PTRACE");
    }
  }

  private void printLimits() {
    for (String limit : limits.split("\n")) {
      String[] words = limit.split(" ", 3);
      if (words.length == 3) {
        healthy &= !words[0].equals(FAULT);
        line(words[0], words[1], words[2]);
      }
    }
  }

  private static String ownJava() {
    return Paths.get(System.getProperty("java.home"), "bin", "java").toString();
  }

  private boolean checkFiles() {
    boolean all = true;
    for (String name : Arrays.asList("libjavanativeagent.so", "javanativeagent.jar")) {
      Path file = root.resolve("lib").resolve(name);
      if (Files.isReadable(file)) {
        ok("file", file.toString());
      } else {
        all = false;
        fault("file", file + " does not exist; " + remedy());
      }
    }
    if (root.toString().contains("=")) {
      all = false;
      fault("file", "the path '" + root + "' contains '=', after which a JVM expects the agent's"
          + " options; move the folder");
    }
    Path viewer = root.resolve("lib/twreport");
    if (!Files.isExecutable(viewer)) {
      hint("file", viewer + " does not exist, and report needs it; "
          + (areSources()
              ? "install libcli11-dev, libfmt-dev and nlohmann-json3-dev and build again"
              : remedy()));
    }
    return all;
  }

  private boolean areSources() {
    return Files.exists(root.resolve("CMakeLists.txt"));
  }

  private String remedy() {
    return areSources() ? "build it: cmake -S . -B build/run && cmake --build build/run"
        : "it belongs to the release: unpack or install the release again";
  }

  private void checkLibraries() throws IOException, InterruptedException {
    Outcome listing = execute(Arrays.asList("ldd", library()), new File("/"));
    List<String> missing = new ArrayList<>();
    String apr = null;
    for (String line : listing.text.split("\n")) {
      String trimmed = line.trim();
      if (trimmed.endsWith("not found")) {
        missing.add(trimmed.split(" ")[0]);
      } else if (trimmed.startsWith("libapr-1.")) {
        apr = trimmed.replaceAll(" \\(0x.*", "");
      }
    }
    if (!missing.isEmpty()) {
      boolean lacksApr = missing.stream().anyMatch(name -> name.startsWith("libapr-1."));
      fault("libraries", "missing: " + String.join(", ", missing)
          + (lacksApr
              ? "; as root: apt-get install libapr1"
              : "; install the packages that have them"));
    } else if (apr != null) {
      ok("APR", apr);
    }
  }

  private void checkOutput() throws IOException {
    String path = output.toAbsolutePath().normalize().toString();
    Path place = output.toAbsolutePath();
    while (place != null && !Files.exists(place)) {
      place = place.getParent();
    }
    if (place == null || !Files.isDirectory(place)) {
      fault("output", "'" + place + "' is not a folder; choose another with -o DIR");
    } else if (!isWritable(place)) {
      fault("output", "'" + place + "' cannot be written; choose another with -o DIR");
    } else {
      ok("output", path);
      long space = place.toFile().getUsableSpace();
      if (space < LITTLE_SPACE) {
        hint("output", "only " + (space >> 20) + " MiB are free there; delete old results, or"
            + " choose another folder with -o DIR");
      }
    }
    String home = agentHome(path);
    if (home.contains(",")) {
      fault("output", "the path '" + home + "' contains a comma, which separates the agent's"
          + " options; choose another with -o DIR");
    }
  }

  /** Found out by writing: rights alone do not reveal file systems that take nothing. */
  private static boolean isWritable(Path folder) {
    try {
      Files.delete(Files.createTempFile(folder, "twprofile", null));
      return true;
    } catch (IOException e) {
      return false;
    }
  }

  /** The part of the output folder's path that the agent gets, as the shell script makes it. */
  private String agentHome(String path) {
    Path folder = Paths.get(path);
    boolean inWorkingDirectory =
        Paths.get("").toAbsolutePath().equals(folder.getParent())
            && (command.isEmpty() || JavaCommand.isJava(command));
    return inWorkingDirectory ? folder.getFileName().toString() : path;
  }

  private void checkCommand(boolean built) throws IOException, InterruptedException {
    String program = command.get(0);
    String found = findProgram(program);
    if (found == null) {
      fault("command", "unknown command '" + program + "'; name a program on the PATH, or the"
          + " path of one");
      return;
    }
    ok("command", found);
    if (!JavaCommand.isJava(command)) {
      checkLoading(built, ownJava());
      hint("classes", "not checked, because the command is not java; name the java command that it"
          + " starts");
      return;
    }
    checkLoading(built, found);
    checkClasses();
  }

  private void checkLoading(boolean built, String java) throws IOException, InterruptedException {
    if (!built) {
      return;
    }
    Path folder = temporaryFolder();
    if (folder == null) {
      hint("agent", "not loaded for a check: no temporary folder can be written; as root: chmod"
          + " 1777 /tmp");
      return;
    }
    try {
      // The home "." leaves no folders, and level 0 no log.
      String agent =
          "-agentpath:" + library()
              + "=twHome=.,logLevel=0,contention=1,allocations=1,features=ALL";
      Outcome run = execute(Arrays.asList(java, agent, "-version"), folder.toFile());
      if (run.exitCode == 0 && run.text.contains(AGENT_GREETING)) {
        ok("agent", "loads in " + java);
        if (run.text.contains("version \"1.8")) {
          hint("JDK", "JDK 8 cannot sample allocations, so there is no allocation profile; use"
              + " JDK 11 or later, or --memory=track=CLASS");
        }
      } else {
        fault("agent", "does not load in " + java + " (exit code " + run.exitCode + "):\n"
            + "  " + run.text.trim().replace("\n", "\n  ")
            + "\n  use a HotSpot JVM of JDK 8 or later, built for glibc and this processor");
      }
    } finally {
      for (File left : folder.toFile().listFiles()) {
        left.delete();
      }
      Files.delete(folder);
    }
  }

  /** A new folder where one can be made; null where none can. */
  private static Path temporaryFolder() {
    for (String parent : Arrays.asList(System.getProperty("java.io.tmpdir"), "/var/tmp")) {
      try {
        return Files.createTempDirectory(Paths.get(parent), "twprofile-doctor");
      } catch (IOException e) {
        // The next one may do.
      }
    }
    return null;
  }

  private void checkClasses() throws IOException {
    for (Path place : JavaCommand.classPlaces(command, System.getenv("CLASSPATH"))) {
      Count count = new Count();
      try {
        if (Files.isDirectory(place)) {
          countFolder(place, count);
        } else {
          countJar(place, count);
        }
      } catch (NoSuchFileException e) {
        hint("classes", place + " does not exist; correct the class path, or build it first");
        continue;
      } catch (IOException e) {
        hint("classes", place + " cannot be read: " + e.getMessage() + "; check its permissions"
            + " and whether it is damaged");
        continue;
      }
      printCount(place, count);
    }
  }

  private void printCount(Path place, Count count) {
    if (count.classes == 0) {
      return;
    }
    if (count.missing == 0) {
      ok("classes", place + ": " + count.classes + (count.classes == 1 ? " class" : " classes")
          + ", frames show their locals");
      return;
    }
    hint("classes", place + ": frames of " + count.missing + " of " + count.classes
        + " classes show no locals (" + String.join(", ", count.named)
        + (count.missing > count.named.size() ? ", ..." : "") + "); compile them with javac -g");
  }

  private static void countFolder(Path folder, Count count) throws IOException {
    Files.walkFileTree(
        folder,
        new SimpleFileVisitor<Path>() {
          @Override
          public FileVisitResult visitFile(Path file, BasicFileAttributes attributes)
              throws IOException {
            if (isClass(file.toString())) {
              try (InputStream in = Files.newInputStream(file)) {
                count.add(folder.relativize(file).toString(), in);
              }
            }
            return FileVisitResult.CONTINUE;
          }

          @Override
          public FileVisitResult visitFileFailed(Path file, IOException e) {
            return FileVisitResult.CONTINUE;
          }
        });
  }

  private static void countJar(Path jar, Count count) throws IOException {
    if (!Files.exists(jar)) {
      throw new NoSuchFileException(jar.toString());
    }
    try (ZipFile zip = new ZipFile(jar.toFile())) {
      Enumeration<? extends ZipEntry> entries = zip.entries();
      while (entries.hasMoreElements()) {
        ZipEntry entry = entries.nextElement();
        if (isClass(entry.getName())) {
          try (InputStream in = zip.getInputStream(entry)) {
            count.add(entry.getName(), in);
          }
        }
      }
    }
  }

  private static boolean isClass(String name) {
    return name.endsWith(".class")
        && !name.endsWith("module-info.class")
        && !name.endsWith("package-info.class");
  }

  /** How many classes of a place were compiled without variables, and the names of the first. */
  private static final class Count {
    int classes;
    int missing;
    final List<String> named = new ArrayList<>();

    void add(String file, InputStream in) throws IOException {
      classes++;
      if (ClassVariables.of(new BufferedInputStream(in)) == ClassVariables.Answer.MISSING) {
        missing++;
        if (named.size() < CLASSES_NAMED) {
          named.add(file.substring(0, file.length() - ".class".length()).replace('/', '.'));
        }
      }
    }
  }

  /** The file that a command's first word names, as a shell finds it; null for none. */
  private static String findProgram(String word) {
    if (word.contains("/")) {
      return isProgram(Paths.get(word)) ? word : null;
    }
    String path = System.getenv().getOrDefault("PATH", "");
    return Arrays.stream(path.split(File.pathSeparator))
        .map(folder -> Paths.get(folder.isEmpty() ? "." : folder, word))
        .filter(Doctor::isProgram)
        .map(Path::toString)
        .findFirst()
        .orElse(null);
  }

  private static boolean isProgram(Path file) {
    return Files.isRegularFile(file) && Files.isExecutable(file);
  }

  private String library() {
    return root.resolve("lib/libjavanativeagent.so").toString();
  }

  private static final class Outcome {
    final int exitCode;
    final String text;

    Outcome(int exitCode, String text) {
      this.exitCode = exitCode;
      this.text = text;
    }
  }

  private static Outcome execute(List<String> words, File folder)
      throws IOException, InterruptedException {
    Process process;
    try {
      process = new ProcessBuilder(words).directory(folder).redirectErrorStream(true).start();
    } catch (IOException e) {
      return new Outcome(-1, e.getMessage());
    }
    process.getOutputStream().close();
    String text = textOf(process.getInputStream());
    if (!process.waitFor(60, TimeUnit.SECONDS)) {
      process.destroyForcibly();
    }
    return new Outcome(process.waitFor(), text);
  }

  private static String textOf(InputStream in) throws IOException {
    ByteArrayOutputStream all = new ByteArrayOutputStream();
    byte[] part = new byte[4096];
    for (int length = in.read(part); length >= 0; length = in.read(part)) {
      all.write(part, 0, length);
    }
    return new String(all.toByteArray(), Charset.defaultCharset());
  }

  private void ok(String subject, String text) {
    line("ok", subject, text);
  }

  /** Something is restricted, but profiling works. */
  private void hint(String subject, String text) {
    line("hint", subject, text);
  }

  private void fault(String subject, String text) {
    healthy = false;
    line(FAULT, subject, text);
  }

  private static void line(String level, String subject, String text) {
    System.out.printf("%-5s  %-9s  %s%n", level, subject, text);
  }
}
