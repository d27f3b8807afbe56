package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.attribute.FileTime;
import java.util.Arrays;
import java.util.Collections;
import java.util.HashSet;

/** How many reports a run keeps, and what it says of the others. */
public final class RunFolderTest {
  private RunFolderTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(RunFolderTest::theOldestGo);
    Checks.inFolder(RunFolderTest::whatStays);
    Checks.end();
  }

  private static void theOldestGo(Path output) throws Exception {
    RunFolder folder = RunFolder.create(output, Collections.singletonMap("files", "3"), 3);
    Path run = folder.path();
    for (int i = 1; i <= 3; i++) {
      make(run, i, "locks-" + i + ".json", "locks-" + i + ".stacks");
    }
    folder.removeOldReports(Collections.emptySet());
    same("as many as may be", 0, folder.removedReports());
    String before = Checks.text(run.resolve("run.json"));
    same("nothing said", false, before.contains("removed"));
    String host = Checks.text(Paths.get("/proc/sys/kernel/hostname")).trim();
    Checks.contains("the host", ",\"host\":\"" + host + "\",", before);
    make(run, 4, "memory-1.json", "memory-1.sweeps");
    make(run, 5, "contention-2.json");
    make(run, 6, "locks-10.json", "locks-10.stacks");
    folder.removeOldReports(Collections.emptySet());
    same("left",
        "contention-2.json locks-10.json locks-10.stacks memory-1.json memory-1.sweeps run.json",
        Checks.names(run));
    same("removed", 3, folder.removedReports());
    String after = Checks.text(run.resolve("run.json"));
    Checks.contains("said", ",\"removed\":{\"reports\":3,\"files\":6,\"kept\":3}}\n", after);
    Checks.contains("the rest stands", before.substring(0, before.length() - 2), after);
    same("mode", "rw-------", Checks.mode(run.resolve("run.json")));
  }

  private static void whatStays(Path output) throws Exception {
    RunFolder folder = RunFolder.create(output, Collections.emptyMap(), 1);
    Path run = folder.path();
    make(run, 1, "locks-1.json.part", "locks-1.stacks.part", "exceptions.jsonl",
        "exceptions-1.jsonl", "locks-x.json", "notes.txt");
    make(run, 2, "memory-1.sweeps", "memory-1.json.part", "contention-1.json",
        "contention-2.json", "allocations-1.json", "allocations-1.growth.part",
        "allocations-2.paths");
    make(run, 3, "locks-2.json", "locks-2.stacks");
    make(run, 4, "locks-3.json.part", "locks-3.stacks.part");
    folder.removeOldReports(
        new HashSet<>(Arrays.asList("locks-3", "memory-1", "contention-2", "allocations-2")));
    same("left",
        "allocations-2.paths contention-2.json exceptions-1.jsonl exceptions.jsonl"
            + " locks-2.json locks-2.stacks locks-3.json.part locks-3.stacks.part locks-x.json"
            + " memory-1.json.part memory-1.sweeps notes.txt run.json",
        Checks.names(run));
    same("removed", 3, folder.removedReports());
  }

  private static void make(Path run, int time, String... names) throws Exception {
    for (String name : names) {
      Path file = Files.createFile(run.resolve(name));
      Files.setLastModifiedTime(file, FileTime.fromMillis(1_800_000_000_000L + time * 1000));
    }
  }
}
