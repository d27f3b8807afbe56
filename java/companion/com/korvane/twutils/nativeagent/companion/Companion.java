package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.VmArguments;
import java.io.IOException;
import java.lang.instrument.Instrumentation;
import java.nio.file.InvalidPathException;
import java.nio.file.Paths;
import java.time.Duration;
import java.time.Instant;
import java.util.EnumSet;
import java.util.Set;
import java.util.concurrent.atomic.AtomicBoolean;

/**
 * Where a JVM starts the companion, with {@code -javaagent:javanativeagent.jar=OPTIONS}, or the
 * agent does with its option {@code companion=FILE}. Whatever goes wrong is printed on standard
 * error, and the program runs on.
 */
public final class Companion {
  /**
   * Programs choose their log manager early in {@code main}, and whatever has to do with management
   * makes the JVM settle on one: it has to wait. Longer than that, since it takes more than all
   * else here, which JVMs that do not live long are spared. A plain number: a thread of the program
   * loads this class, and what that allocated would be in the allocation profile.
   */
  private static final int SECONDS_UNTIL_MANAGEMENT = 3;

  /** The same for a late start, before which the JVM has lived for two seconds. */
  private static final int SECONDS_UNTIL_LATE_MANAGEMENT = 1;

  /** What has to be left for the JVM, which starts threads after this, and for the program. */
  private static final int SPARE_THREADS = 12;

  private static final AtomicBoolean IS_STARTED = new AtomicBoolean();
  private static final AtomicBoolean IS_CLEANED_UP = new AtomicBoolean();

  private final Instrumentation instrumentation; // null when the agent has started it
  private final boolean isLate;
  private final boolean hasStrayFolders; // which the agent has made, and leaves to the companion
  private final Set<Feature> skipped = EnumSet.noneOf(Feature.class);

  private Companion(Instrumentation instrumentation, boolean isLate, boolean hasStrayFolders) {
    this.instrumentation = instrumentation;
    this.isLate = isLate;
    this.hasStrayFolders = hasStrayFolders;
  }

  public static void premain(String options, Instrumentation instrumentation) {
    try {
      NativeAgent.leaveOutAllocations(true);
      new Companion(instrumentation, false, true).start(options, Options.parse(options));
    } catch (Throwable e) {
      // Not even this could be printed. The program runs on.
    } finally {
      NativeAgent.leaveOutAllocations(false); // the program's own thread goes on
    }
  }

  public static void agentmain(String options, Instrumentation instrumentation) {
    new Companion(instrumentation, false, false).start(options, Options.parse(options));
  }

  /**
   * The agent's own start, before {@code main} or, with its option {@code companionLate=1}, later.
   *
   * @param file with the options
   * @param isEnding the program's shutdown hooks are about to run: a profile that has nothing to
   *     report leaves none
   * @param hasContention whether that profile has something to report
   * @param hasAllocations the same
   */
  static void start(
      String file,
      boolean isLate,
      boolean isEnding,
      boolean hasContention,
      boolean hasAllocations) {
    Companion companion = new Companion(null, isLate, false);
    if (isEnding && !hasContention) {
      companion.skipped.add(Feature.CONTENTION);
    }
    if (isEnding && !hasAllocations) {
      companion.skipped.add(Feature.ALLOCATIONS);
    }
    companion.start("config=" + file, Options.ofFile(file));
  }

  /**
   * The companion has run in this JVM before. Afterwards {@link Presence} knows whether it does.
   */
  static void startAgain(String options) {
    new Companion(Presence.instrumentation(), false, false).start(options, Options.parse(options));
  }

  /** It runs no more. */
  static void mayStartAgain() {
    IS_STARTED.set(false);
  }

  private void start(String text, Options options) {
    if (!IS_STARTED.compareAndSet(false, true)) {
      Console.print("the companion is already running: ignoring the options '" + text + "'");
      return;
    }
    NativeAgent.leaveOutAllocations(true);
    try {
      start(options);
    } catch (SecurityException e) {
      Console.print("the security manager prevents profiling: the policy has to grant"
          + " java.security.AllPermission to javanativeagent.jar (" + e.getMessage() + ")");
    } catch (Throwable e) {
      Console.print("nothing is profiled: ", e);
    } finally {
      if (Presence.controller() == null) {
        mayStartAgain(); // as when it is attached, now that it has failed
      }
      NativeAgent.leaveOutAllocations(false); // the program's own thread goes on
    }
  }

  private void start(Options options) {
    boolean isLoaded = NativeAgent.isLoaded();
    if (isLoaded) {
      RedactionOptions.applyAtStart(options.values());
    }
    for (String problem : options.problems()) {
      Console.print(problem);
    }
    if (!isLoaded) {
      Console.print("nothing is profiled: the JVM was started without"
          + " -agentpath:/path/to/libjavanativeagent.so");
      return;
    }
    if (hasStrayFolders) {
      deleteStrayFolders();
    }
    if (!isLate) {
      AgentThread.requireSpare(SPARE_THREADS);
    }
    Controller controller = new Controller(options.values(), instrumentation);
    controller.startClock();
    Thread hook = AgentThread.inAnyCase("end", () -> end(controller));
    Runtime.getRuntime().addShutdownHook(hook);
    Presence.began(controller, instrumentation, hook, controller.begin(skipped));
    controller.after(
        Duration.ofSeconds(isLate ? SECONDS_UNTIL_LATE_MANAGEMENT : SECONDS_UNTIL_MANAGEMENT),
        () -> meetManagement(controller));
  }

  private static void meetManagement(Controller controller) {
    register(controller);
    deleteOldLogs(VmArguments.ofThisJvm());
  }

  private static void end(Controller controller) {
    try {
      controller.end();
      deleteOldLogs(VmArguments.ofThisProcess());
    } catch (Throwable e) {
      Console.print("", e);
    }
  }

  /** @param arguments which a JVM that has ended early does not ask management for */
  private static void deleteOldLogs(VmArguments arguments) {
    String home = IS_CLEANED_UP.getAndSet(true) ? null : arguments.home();
    if (home == null) {
      return;
    }
    try {
      HomeCleanUp.deleteOldLogs(Paths.get(home), Instant.now());
    } catch (InvalidPathException e) {
      // A name that this locale cannot spell: what is there stays.
    }
  }

  /** Before the program runs: later, it could be the program that has made and uses them. */
  private static void deleteStrayFolders() {
    String home = VmArguments.ofThisProcess().home();
    if (home == null) {
      return;
    }
    try {
      HomeCleanUp.deleteStrayFolders(home, Paths.get(""), HomeCleanUp.processStart());
    } catch (IOException | InvalidPathException e) {
      // When the process began is not known, or the name cannot be spelled: what is there stays.
    }
  }

  private static void register(Controller controller) {
    try {
      NativeAgentBean.register(controller);
      Presence.isManaged(); // not before: without the module there is nothing to take out
    } catch (NoClassDefFoundError e) {
      if (!(e.getCause() instanceof ClassNotFoundException)) {
        throw e; // there was no memory for a class
      }
      // A Java without the module java.management has no one to ask for the bean.
    }
  }
}
