package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentAttach;
import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.VmArguments;
import java.io.IOException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/**
 * The verbs of {@code twprofile} that are about a running JVM. The native agent calls this by name,
 * on the thread on which the JVM serves tools.
 */
public final class Commands {
  /** How long the JVM is kept from serving other tools; the answer may come later. */
  private static final long PATIENCE_SECONDS = 5;

  private static final long NANOS_UNTIL_STARTED = TimeUnit.SECONDS.toNanos(10);

  /** What only a JVM that starts can give to a profiler. */
  private static final String[] MISSING_WHEN_IDLE = {
    "exceptions where they are thrown (mode=thrown); they are captured where they are made",
    "values in records of exceptions, except for thread locals",
    "the check that an owner still holds a monitor when its stack is taken (contention)"
  };

  private final CommandRequest request;
  private final StringBuilder answer = new StringBuilder();
  private boolean hasFailed;

  private Commands(CommandRequest request) {
    this.request = request;
  }

  /**
   * Does what a request asks for, on a thread of the companion's own. The answer is in the file of
   * that name with ".answer" at its end, as soon as there is one: lines "1 TEXT" and "2 TEXT" for
   * standard output and standard error, then "exit CODE".
   *
   * @param path the file with the request, in a folder of its own
   * @return 0; another number when nothing can be answered
   */
  public static int run(String path) {
    NativeAgent.leaveOutAllocations(true);
    try {
      CountDownLatch done = new CountDownLatch(1);
      AgentThread.inAnyCase("command", () -> run(Paths.get(path), done)).start();
      done.await(PATIENCE_SECONDS, TimeUnit.SECONDS); // no join, which has a monitor
      return 0;
    } catch (InterruptedException e) {
      return 0; // the work goes on
    } catch (Throwable e) {
      Console.print("a command cannot be answered: ", e);
      return 1;
    } finally {
      NativeAgent.leaveOutAllocations(false);
    }
  }

  private static void run(Path file, CountDownLatch done) {
    try {
      Path answer = file.resolveSibling(file.getFileName() + ".answer");
      PrivateFiles.replace(answer, answerTo(file));
    } catch (IOException e) {
      // Nobody waits for it any more.
    } finally {
      done.countDown();
    }
  }

  private static String answerTo(Path file) throws IOException {
    CommandRequest request;
    try {
      request = CommandRequest.read(file);
    } catch (IllegalArgumentException e) {
      return "2 twprofile: " + e.getMessage() + "\nexit 1\n";
    }
    Commands commands = new Commands(request);
    try {
      commands.run();
    } catch (IOException | RuntimeException | Error e) {
      commands.fail(Console.messageOf(e));
    }
    int exitCode = commands.hasFailed ? 1 : 0;
    return commands.answer.append("exit ").append(exitCode).append('\n').toString();
  }

  private void run() throws IOException {
    switch (request.verb) {
      case "status":
        showStatus(controller());
        break;
      case "start":
        start(controller());
        break;
      case "stop":
        stop(controller());
        break;
      case "attach":
        attach();
        break;
      case "detach":
        detach(controller());
        break;
      default:
        throw new IllegalArgumentException("unknown verb '" + request.verb + "'");
    }
  }

  private void print(String text) {
    append('1', text);
  }

  private void fail(String text) {
    append('2', "twprofile: " + request.verb + ": " + text);
    hasFailed = true;
  }

  private void append(char stream, String text) {
    for (String line : text.split("\n")) {
      answer.append(stream).append(' ').append(line).append('\n');
    }
  }

  /** @throws IllegalStateException when it does not run, and does not begin to */
  private static Controller controller() {
    long end = System.nanoTime() + NANOS_UNTIL_STARTED;
    while (Presence.controller() == null && System.nanoTime() - end < 0) {
      AgentThread.pause();
    }
    if (Presence.controller() == null) {
      throw new IllegalStateException(
          "its companion does not answer; see the standard error of the JVM");
    }
    return Presence.controller();
  }

  private void showStatus(Controller controller) {
    Status status = controller.status();
    Set<Feature> features = features();
    for (Profiler profiler : Profiler.values()) {
      String shown =
          isLoaded(profiler, features)
              ? status.of(profiler.feature()).state + "; " + profiler.details(status)
              : "the JVM was started without it";
      print(inColumns(profiler.toString(), shown));
    }
    Path folder = status.runFolder;
    print(inColumns("results", folder == null ? "none yet" : folder.toString()));
    if (status.metrics != null) {
      print(inColumns("metrics", status.metrics));
    }
    if (controller.pushStatus() != null) {
      print(inColumns("push", controller.pushStatus()));
    }
    if (VmArguments.ofThisProcess().areIdle()) {
      for (String missing : MISSING_WHEN_IDLE) {
        print("not in a JVM that was started with --idle: " + missing);
      }
    }
  }

  /** Management, of which the program may not have chosen the log manager yet, comes last. */
  private static Set<Feature> features() {
    VmArguments arguments = VmArguments.ofThisProcess();
    return !NativeAgent.isAttached() && arguments.haveAgent()
        ? arguments.features()
        : NativeAgent.features();
  }

  private static String inColumns(String name, String text) {
    StringBuilder line = new StringBuilder(name);
    while (line.length() < 11) {
      line.append(' ');
    }
    return line.append("  ").append(text).toString();
  }

  private static boolean isLoaded(Profiler profiler, Set<Feature> features) {
    return !profiler.feature().needsChoice() || features.contains(profiler.feature());
  }

  private void start(Controller controller) {
    Set<Feature> features = features();
    for (Profiler profiler : request.profilers()) {
      if (!isLoaded(profiler, features)) {
        throw new IllegalStateException(
            "the JVM was started without " + profiler + "; start it with: twprofile run --"
                + profiler + " -- COMMAND");
      }
    }
    for (Profiler profiler : request.profilers()) {
      controller.start(profiler.feature(), request.settingsOf(profiler));
      printState(controller, profiler);
    }
  }

  private void printState(Controller controller, Profiler profiler) {
    print(profiler + ": " + controller.status().of(profiler.feature()).state);
  }

  private void stop(Controller controller) {
    List<Profiler> chosen = request.profilers();
    if (chosen.isEmpty()) {
      chosen = running(controller);
    }
    if (chosen.isEmpty()) {
      throw new IllegalStateException("nothing is being profiled in JVM " + request.pid);
    }
    stop(controller, chosen);
  }

  private static List<Profiler> running(Controller controller) {
    List<Profiler> running = new ArrayList<>();
    Status status = controller.status();
    for (Profiler each : Profiler.values()) {
      if (!status.of(each.feature()).state.equals(Activity.OFF)) {
        running.add(each);
      }
    }
    return running;
  }

  /** Stops as many as it can; prints which it could not, and why. */
  private void stop(Controller controller, List<Profiler> chosen) {
    for (Profiler profiler : chosen) {
      try {
        String state = controller.status().of(profiler.feature()).state;
        Path file = controller.stop(profiler.feature());
        print(profiler + ": " + (file == null ? "stopped before it began" : file));
        if (state.equals(LockSession.Phase.SUMMARY.toString())) {
          print("the report has no locks yet: the session was in its summary phase, which finds out"
              + " which locks to record; let it get into its detail phase, or shorten the first:"
              + " twprofile start " + request.pid + " --locks=summary=5s");
        }
      } catch (IOException | IllegalArgumentException | IllegalStateException e) {
        fail(profiler + ": " + e.getMessage());
      }
    }
  }

  /** Agent and companion are there by now; the first time, the companion has started by itself. */
  private void attach() {
    if (Presence.controller() == null) {
      Companion.startAgain(request.setting());
    }
    Controller controller = controller();
    List<String> problems = Presence.problems();
    for (String problem : problems) {
      fail(problem);
    }
    for (Profiler profiler : request.profilers()) {
      printState(controller, profiler);
    }
    // The others run without one that this JVM cannot have.
    hasFailed = !problems.isEmpty() && running(controller).isEmpty();
    for (String missing : AgentAttach.missing().split("\n")) {
      if (!missing.isEmpty()) {
        print("not in an attached JVM: " + missing);
      }
    }
  }

  private void detach(Controller controller) {
    if (!AgentAttach.isAttached()) {
      throw new IllegalStateException(
          "JVM " + request.pid + " was started with the agent, which stays until it ends; to stop"
              + " what it records: twprofile stop " + request.pid);
    }
    stop(controller, running(controller));
    Presence.end();
    String problem = AgentAttach.detach();
    if (problem != null) {
      fail("not all could be undone: " + problem);
    }
    print("detached: the agent's library and the companion's classes stay in memory until the JVM"
        + " ends, and do nothing");
  }
}
