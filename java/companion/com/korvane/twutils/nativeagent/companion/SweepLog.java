package com.korvane.twutils.nativeagent.companion;

import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.time.Instant;
import java.util.Locale;

/**
 * A file with a JSON object a line for each sweep: when it was, how many classes were looked for,
 * how many objects were added, and how long the program stood still. Made with its first line.
 */
final class SweepLog {
  private final Path path;
  private OutputStream out;
  private boolean hasFailed;

  SweepLog(Path path) {
    this.path = path;
  }

  void add(int classes, int added, long nanos) {
    JsonText json = new JsonText().beginObject();
    json.key("sweep").value(Instant.now().toString());
    json.key("classes").value(classes);
    json.key("added").value(added);
    json.key("pauseMillis").literal(String.format(Locale.ROOT, "%.3f", nanos / 1e6));
    json.endObject();
    try {
      if (out == null) {
        PrivateFiles.createFile(path);
        out = new FileOutputStream(path.toFile());
      }
      out.write((json.toString() + '\n').getBytes(StandardCharsets.UTF_8));
    } catch (IOException e) {
      tellFailure(e);
    }
  }

  void close() {
    try {
      if (out != null) {
        out.close();
      }
    } catch (IOException e) {
      tellFailure(e);
    }
  }

  private void tellFailure(IOException failure) {
    if (!hasFailed) {
      hasFailed = true;
      Console.say("sweeps cannot be written to " + path + ": " + failure);
    }
  }
}
