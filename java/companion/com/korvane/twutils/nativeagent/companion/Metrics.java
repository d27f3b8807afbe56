package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentMetrics;
import com.korvane.twutils.nativeagent.OptionKey;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;

/**
 * Offers the metrics of this JVM: on a port, or in a file that is written at an interval. Made only
 * when the user asks for it. What goes wrong is printed, and the program runs on.
 */
final class Metrics {
  private final Controller controller;
  private final MetricsTarget target;
  private final String token; // the file; may be empty
  private final Duration interval;
  private final MetricsPage page;

  private Timetable.Step next; // writes the file; in turn
  private boolean hasFailed; // to write the file, since it was last written
  private volatile MetricsServer server;
  private volatile boolean isClosed;
  private volatile String place; // where they are; null before there are any

  /** @throws IllegalArgumentException when an option is refused */
  Metrics(Controller controller, OptionReader options) {
    this.controller = controller;
    String pid = RunFolder.pid();
    target = MetricsTarget.parse(options.text(OptionKey.METRICS), pid);
    token = options.text(OptionKey.METRICS_TOKEN);
    interval = options.duration(OptionKey.METRICS_INTERVAL);
    String common = target.file == null ? "" : MetricsText.label("jvm", target.name());
    page = new MetricsPage(controller, pid, options.number(OptionKey.METRICS_CLASSES), common);
  }

  /** In turn. */
  void start() {
    if (target.file != null) {
      next = controller.step(this::writeFile);
      writeFile();
    } else {
      // An address may take a while to be found.
      AgentThread.of("metrics start", this::listen).start();
    }
  }

  /** A URL or a file; null before there are any metrics. */
  String place() {
    return place;
  }

  private void listen() {
    try {
      MetricsToken needed = token.isEmpty() ? null : MetricsToken.read(Paths.get(token));
      MetricsServer opened = MetricsServer.open(page, target.host, target.port, needed);
      server = opened;
      if (isClosed) {
        opened.close();
      }
      opened.start();
      place = opened.url();
      controller.writeMetricsUrl(place);
    } catch (IOException e) {
      Console.print("there are no metrics on port " + target.port + " of " + target.host + ": ", e);
    } catch (RuntimeException | Error e) {
      Console.print("", e);
    }
  }

  /** In turn: it is there in one piece, or as it was before. */
  private void writeFile() {
    long before = AgentMetrics.threadNanos();
    try {
      PublicFiles.replace(target.file, page.write(false));
      place = target.file.toString();
      hasFailed = false;
    } catch (IOException e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("the metrics cannot be written to " + target.file + ": ", e);
      }
    }
    page.cost(AgentMetrics.threadNanos() - before);
    if (!isClosed) {
      next.after(interval);
    }
  }

  /** In turn: the JVM ends, or the agent is taken out. */
  void close() {
    if (isClosed) {
      return;
    }
    isClosed = true;
    if (target.file == null) {
      MetricsServer opened = server;
      if (opened != null) {
        opened.close();
      }
    } else if (target.isOfProcess) {
      delete(target.file);
    } else {
      writeFile();
    }
  }

  /** Nobody is to take a process that has ended for one that stands still. */
  private static void delete(Path file) {
    try {
      Files.deleteIfExists(file);
    } catch (IOException e) {
      // It stays.
    }
  }
}
