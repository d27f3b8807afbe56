package com.korvane.twutils.nativeagent.companion;

import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.List;
import java.util.Locale;

/**
 * A file with a JSON object a line for each sweep: when it was, how many classes it covered, and
 * how many objects were added. Also how long the program stood still, how long it is until the next
 * one, and of which classes no more objects are tracked for now. Made with its first line. Sweeps
 * for which it has no room are skipped, and its last line reports it.
 */
final class SweepLog {
  private static final int MAX_SIZE = 10 << 20; // bytes, except for the last line
  private static final String LAST_LINE = "{\"leftOut\":\"all that follow\"}";

  private final Path path;
  private OutputStream out;
  private int size;
  private boolean hasFailed;

  SweepLog(Path path) {
    this.path = path;
  }

  Path path() {
    return path;
  }

  /** @param full names of classes, each of them once in all lines */
  void add(int classes, int added, long nanos, Duration untilNext, List<String> full) {
    JsonText json = new JsonText().beginObject();
    json.key("sweep").value(Instant.now().toString());
    json.key("classes").value(classes);
    json.key("added").value(added);
    json.key("pauseMillis").literal(String.format(Locale.ROOT, "%.3f", nanos / 1e6));
    json.key("nextMillis").value(untilNext.toMillis());
    if (!full.isEmpty()) {
      json.key("full").beginArray();
      for (String each : full) {
        json.value(each);
      }
      json.endArray();
    }
    json.endObject();
    try {
      if (out == null) {
        PrivateFiles.createFile(path);
        out = new FileOutputStream(path.toFile());
      }
      if (size < MAX_SIZE) {
        write(json.toString());
        if (size >= MAX_SIZE) {
          write(LAST_LINE);
          Console.note("no more sweeps are written to " + path + ": it has " + size + " bytes");
        }
      }
    } catch (IOException e) {
      printFailure(e);
    }
  }

  private void write(String line) throws IOException {
    byte[] bytes = (line + '\n').getBytes(StandardCharsets.UTF_8);
    out.write(bytes);
    size += bytes.length;
  }

  void close() {
    try {
      if (out != null) {
        out.close();
      }
    } catch (IOException e) {
      printFailure(e);
    }
  }

  private void printFailure(IOException failure) {
    if (!hasFailed) {
      hasFailed = true;
      Console.print("sweeps cannot be written to " + path + ": ", failure);
    }
  }
}
