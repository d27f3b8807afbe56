package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.io.File;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.FileTime;
import java.time.Duration;
import java.time.Instant;

/** Old logs, and empty folders that the agent has left. */
public final class HomeCleanUpTest {
  private static final Instant NOW = Instant.now();

  private HomeCleanUpTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(HomeCleanUpTest::oldLogs);
    Checks.inFolder(folder -> HomeCleanUp.deleteOldLogs(folder.resolve("none"), NOW));
    Checks.inFolder(HomeCleanUpTest::strayFolders);
    processStart();
    Checks.end();
  }

  private static void oldLogs(Path home) throws Exception {
    Path logs = Files.createDirectory(home.resolve("logs"));
    String self = new File("/proc/self").getCanonicalFile().getName();
    String unused = "99999999"; // more than a process id can be
    log(logs, "tw_NativeAgent_20260101000000_" + unused + ".log_0", 6);
    log(logs, "tw_NativeAgent_20260101000000_" + unused + ".log_1", 6);
    log(logs, "tw_NativeAgent_20260102000000_" + unused + ".log_0", 4);
    log(logs, "tw_NativeAgent_20260103000000_" + self + ".log_0", 6);
    log(logs, "tw_NativeAgent_notes.txt", 6);
    log(logs, "mine.log_0", 6);
    Files.createDirectory(logs.resolve("tw_NativeAgent_20260104000000_" + unused + ".log_0"));
    HomeCleanUp.deleteOldLogs(home, NOW);
    same(
        "left",
        "mine.log_0 tw_NativeAgent_20260102000000_" + unused
            + ".log_0 tw_NativeAgent_20260103000000_" + self
            + ".log_0 tw_NativeAgent_20260104000000_" + unused
            + ".log_0 tw_NativeAgent_notes.txt",
        Checks.names(logs));
  }

  private static void log(Path logs, String name, int days) throws Exception {
    Path file = Files.createFile(logs.resolve(name));
    Files.setLastModifiedTime(file, FileTime.from(NOW.minus(Duration.ofDays(days))));
  }

  private static void processStart() throws Exception {
    long started = ManagementFactory.getRuntimeMXBean().getStartTime();
    long before = started - HomeCleanUp.processStart().toEpochMilli();
    same("a little before the VM: " + before, true, before > -100 && before < 30_000);
  }

  private static void strayFolders(Path folder) throws Exception {
    for (String name : new String[] {"srv", "srvagent", "srvagentx", "agent", "other"}) {
      Files.createDirectory(folder.resolve(name));
    }
    Files.createFile(folder.resolve("srvagentx/file"));
    Instant later = Instant.now().plusSeconds(60);
    HomeCleanUp.deleteStrayFolders("/srv//agent/x/", folder, later);
    same("older ones", "agent other srv srvagent srvagentx", Checks.names(folder));
    HomeCleanUp.deleteStrayFolders("/srv//agent/x/", folder, NOW);
    same("those of the agent", "agent other srvagentx", Checks.names(folder));
  }
}
