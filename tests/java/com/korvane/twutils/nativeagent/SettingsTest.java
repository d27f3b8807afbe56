package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.contains;
import static com.korvane.twutils.nativeagent.Checks.refused;
import static com.korvane.twutils.nativeagent.Checks.same;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.Arrays;
import java.util.Collections;
import java.util.EnumSet;

/** Settings that are refused, report files, and a JVM without the agent. */
public final class SettingsTest {
  private static final Class<IllegalArgumentException> ARGUMENT = IllegalArgumentException.class;
  private static final Path REPORT = Paths.get("report.json");

  private SettingsTest() {}

  public static void main(String[] args) throws Exception {
    lockSettings();
    exceptionSettings();
    memorySettings();
    contentionSettings();
    allocationSettings();
    withoutTheAgent();
    vmArguments();
    Checks.inFolder(SettingsTest::reportFiles);
    Checks.inFolder(SettingsTest::unwritablePaths);
    Checks.end();
  }

  private static void lockSettings() {
    LockSettings settings = new LockSettings(REPORT);
    refused(ARGUMENT, "report is null", () -> new LockSettings(null));
    refused(ARGUMENT, "stacks is null", () -> settings.stacks(null));
    refused(ARGUMENT, "another file", () -> settings.stacks(REPORT));
    refused(ARGUMENT, "report is /: expected a file", () -> new LockSettings(Paths.get("/")));
    refused(ARGUMENT, "name is null", () -> settings.name(null));
    refused(ARGUMENT, "NUL", () -> settings.name("a\0b"));
    refused(ARGUMENT, "summary is PT-1S", () -> settings.summary(Duration.ofSeconds(-1)));
    refused(ARGUMENT, "detail is null", () -> settings.detail(null));
    refused(ARGUMENT, "to 240000h", () -> settings.detail(Duration.ofDays(10_001)));
    refused(ARGUMENT, "detail is PT", () -> settings.detail(Duration.ofSeconds(Long.MAX_VALUE)));
    refused(ARGUMENT, "topLocks is 0: expected a number from 1 to 2147483647, or -1 for all",
        () -> settings.topLocks(0));
    refused(ARGUMENT, "topLocks is -2", () -> settings.topLocks(-2));
    refused(ARGUMENT, "maxLocks is 0", () -> settings.maxLocks(0));
    refused(ARGUMENT, "maxThreadsPerLock is -1", () -> settings.maxThreadsPerLock(-1));
    refused(ARGUMENT, "maxThreads is 0", () -> settings.maxThreads(0));
    refused(ARGUMENT, "maxStackTraces is 0", () -> settings.maxStackTraces(0));
    refused(ARGUMENT, "maxStackTracesPerThread", () -> settings.maxStackTracesPerThread(0));
    same("stack file", "report.stacks", settings.stacks.getFileName().toString());
    LockSettings other = new LockSettings(Paths.get("r"));
    same("stack file", "r.stacks", other.stacks.getFileName().toString());
    same("all locks", -1, settings.topLocks(-1).topLocks);
  }

  private static void exceptionSettings() {
    ExceptionSettings settings = new ExceptionSettings();
    same("no names", "[]", settings.blackList());
    same("names", "[a.B,c.D$E]", settings.exclude("a.B", "c.D$E").blackList());
    same("names of other letters", "[café.Été]", settings.exclude("café.Été").blackList());
    refused(ARGUMENT, "exclude is null", () -> settings.exclude((String[]) null));
    refused(ARGUMENT, "a name in exclude is null", () -> settings.exclude((String) null));
    refused(ARGUMENT, "a name in exclude is ''", () -> settings.exclude(""));
    refused(ARGUMENT, "'a.B,c.D'", () -> settings.exclude("a.B,c.D"));
    refused(ARGUMENT, "' a.B'", () -> settings.exclude(" a.B"));
    refused(ARGUMENT, "rate is -1", () -> settings.rate(-1));
    refused(ARGUMENT, "depth is 0: expected a number from 1 to 100", () -> settings.depth(0));
    refused(ARGUMENT, "depth is 101", () -> settings.depth(101));
  }

  private static void memorySettings() {
    MemorySettings settings = new MemorySettings(REPORT);
    refused(ARGUMENT, "report is null", () -> new MemorySettings(null));
    refused(ARGUMENT, "name is null", () -> settings.name(null));
    refused(ARGUMENT, "topClasses is 0", () -> settings.topClasses(0));
    refused(ARGUMENT, "duration is", () -> settings.duration(Duration.ofMillis(-1)));
    refused(ARGUMENT, "includeClasses is null", () -> settings.includeClasses(null));
    refused(ARGUMENT, "'a.*'", () -> settings.excludePackages(Collections.singleton("a.*")));
    same("list", "a.B,c.D", settings.includeClasses(Arrays.asList("a.B", "c.D")).includedClasses);
  }

  private static void contentionSettings() {
    ContentionSettings settings = new ContentionSettings(REPORT);
    same("defaults", "50 4096 1 PT30S PT10S", settings.samples + " " + settings.locks + " "
        + settings.budget + " " + settings.stuck + " " + settings.window);
    refused(ARGUMENT, "report is null", () -> new ContentionSettings(null));
    refused(ARGUMENT, "samples is -1: expected a number from 0 to 1000",
        () -> settings.samples(-1));
    refused(ARGUMENT, "samples is 1001", () -> settings.samples(1001));
    refused(ARGUMENT, "locks is 63: expected a number from 64 to 65536", () -> settings.locks(63));
    refused(ARGUMENT, "locks is 65537", () -> settings.locks(65_537));
    refused(ARGUMENT, "budget is 0: expected a number from 1 to 100", () -> settings.budget(0));
    refused(ARGUMENT, "budget is 101", () -> settings.budget(101));
    refused(ARGUMENT, "stuck is PT0.099S: expected a duration from 100ms to 240000h",
        () -> settings.stuck(Duration.ofMillis(99)));
    refused(ARGUMENT, "window is PT0.999S: expected a duration from 1s to 1h",
        () -> settings.window(Duration.ofMillis(999)));
    refused(ARGUMENT, "window is null", () -> settings.window(null));
    settings.samples(0).locks(64).budget(100).stuck(Duration.ofMillis(100))
        .window(Duration.ofHours(1));
    same("taken", "0 64 100 PT0.1S PT1H", settings.samples + " " + settings.locks + " "
        + settings.budget + " " + settings.stuck + " " + settings.window);
  }

  private static void allocationSettings() {
    AllocationSettings settings = new AllocationSettings(REPORT);
    same("defaults", "524288 50000", settings.interval + " " + settings.samples);
    refused(ARGUMENT, "report is null", () -> new AllocationSettings(null));
    refused(ARGUMENT, "interval is 1023: expected a size from 1k to 1024m",
        () -> settings.interval(1023));
    refused(ARGUMENT, "interval is 1073741825", () -> settings.interval((1L << 30) + 1));
    refused(ARGUMENT, "samples is 999: expected a number from 1000 to 50000",
        () -> settings.samples(999));
    refused(ARGUMENT, "samples is 50001", () -> settings.samples(50_001));
    settings.interval(1 << 30).samples(1000);
    same("taken", "1073741824 1000", settings.interval + " " + settings.samples);
  }

  private static void withoutTheAgent() {
    same("loaded", false, NativeAgent.isLoaded());
    same("features", EnumSet.noneOf(Feature.class), NativeAgent.features());
    String expected = "-agentpath:/path/to/libjavanativeagent.so";
    Class<IllegalStateException> state = IllegalStateException.class;
    refused(state, expected, () -> NativeAgent.startLocks(new LockSettings(REPORT)));
    refused(state, expected, () -> NativeAgent.startMemory(new MemorySettings(REPORT)));
    refused(state, expected, () -> NativeAgent.startContention(new ContentionSettings(REPORT)));
    refused(state, expected, () -> NativeAgent.startAllocations(new AllocationSettings(REPORT)));
    same("no moment before the hooks", "the agent is older than the companion, or there is none",
        NativeAgent.beforeShutdownHooks(() -> {}));
    NativeAgent.leaveOutAllocations(true);
    refused(state, expected,
        () -> NativeAgent.startExceptions(new ExceptionSettings(), (record, exception) -> {}));
    NativeAgent.stopExceptions();
    same("nothing left", false, Files.exists(Paths.get("report.json.part")));
  }

  private static void vmArguments() {
    String library = "-agentpath:/opt/x=y/libjavanativeagent.so";
    EnumSet<Feature> all = EnumSet.of(Feature.LOCKS, Feature.MEMORY, Feature.EXCEPTIONS);
    same("unknown", all, new VmArguments(null).features());
    same("no agent", EnumSet.noneOf(Feature.class), arguments("-Xmx1g").features());
    same("all", all, arguments("-agentlib:javanativeagent").features());
    same("home", null, arguments("-agentlib:javanativeagent").home());
    VmArguments some =
        arguments("-Dx", "-agentpath:/a/libjavanativeagent.so=TWHOME=/h,features=mutexprofiling_x");
    same("options", "TWHOME=/h,features=mutexprofiling_x", some.options());
    same("home", "/h", some.home());
    same("one", EnumSet.of(Feature.LOCKS), some.features());
    same("ALL", all,
        arguments("-agentpath:/a/libjavanativeagent.so=features=ALL_x").features());
    String contention = "-agentpath:/a/libjavanativeagent.so=contention=1,features=contention";
    same("none", EnumSet.noneOf(Feature.class), arguments(contention).features());
    same("has the agent", true, arguments(contention).haveAgent());
    same("has none", false, arguments("-Xmx1g").haveAgent());
    same("not idle", false, arguments(contention).areIdle());
    same("idle", true, arguments(contention + ",idle=1,quiet=1").areIdle());
    same("another agent", null, arguments("-agentpath:/a/other.so=twHome=/h").options());
    same("a path that the VM cuts", null, arguments(library).options());
    same("words", Arrays.asList("-a", "-b=c d", "e'f"),
        VmArguments.words(" -a\t-b='c d'  e\"'\"f "));
    same("no variable", Collections.emptyList(), VmArguments.words(null));
  }

  private static VmArguments arguments(String... arguments) {
    return new VmArguments(Arrays.asList(arguments));
  }

  private static void reportFiles(Path folder) throws Exception {
    Path path = folder.resolve("r.json");
    ReportFile report = new ReportFile("lock report", path);
    same("before", "r.json.part", Checks.names(folder));
    same("mode", "rw-------", Checks.mode(Paths.get(report.partPath())));
    Checks.write(Paths.get(report.partPath()), "{\n \"a\": [1,");
    refused(IOException.class, "the lock report " + path + " is not complete: its end is missing",
        () -> report.publishJson(null));
    same("kept", "r.json.part", Checks.names(folder));

    Checks.write(Paths.get(report.partPath()), "{\n \"a\": [1, 2]\n}");
    Thread.currentThread().interrupt();
    same("published", path, report.publishJson(null));
    same("interrupted all the same", true, Thread.interrupted());
    same("after", "r.json", Checks.names(folder));
    same("mode", "rw-------", Checks.mode(path));

    ReportFile stacks = new ReportFile("stack file", folder.resolve("s"));
    Checks.write(Paths.get(stacks.partPath()), "1=[a]\n2=[b");
    refused(IOException.class, "its last line is cut off", stacks::publishLines);
    Checks.write(Paths.get(stacks.partPath()), "1=[a]\n");
    stacks.publishLines();
    same("all", "r.json s", Checks.names(folder));
  }

  private static void unwritablePaths(Path folder) throws Exception {
    refused(ARGUMENT, "the report " + folder + " cannot be written: it is a folder",
        () -> new ReportFile("report", folder));
    try {
      new ReportFile("report", folder.resolve("missing/r.json"));
      same("missing folder", "refused", "taken");
    } catch (IllegalArgumentException e) {
      contains("missing folder", "missing/r.json cannot be written: NoSuchFileException",
          e.getMessage());
    }
  }
}
