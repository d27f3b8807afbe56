package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.VmArguments;
import java.io.IOException;
import java.lang.instrument.Instrumentation;
import java.nio.file.InvalidPathException;
import java.nio.file.Paths;
import java.time.Duration;
import java.time.Instant;
import java.util.concurrent.atomic.AtomicBoolean;

/**
 * Where a JVM starts the companion, with {@code -javaagent:javanativeagent.jar=OPTIONS}. Whatever
 * goes wrong is printed on standard error, and the program runs on.
 */
public final class Companion {
  /**
   * Programs choose their log manager early in {@code main}, and whatever has to do with management
   * makes the JVM settle on one: it has to wait. A plain number: a thread of the program loads this
   * class, and what that allocated would be in the allocation profile.
   */
  private static final int SECONDS_UNTIL_MAIN_HAS_BEGUN = 1;

  /** What has to be left for the JVM, which starts threads after this, and for the program. */
  private static final int SPARE_THREADS = 12;

  private static final AtomicBoolean IS_STARTED = new AtomicBoolean();
  private static final AtomicBoolean IS_CLEANED_UP = new AtomicBoolean();

  private Companion() {}

  public static void premain(String options, Instrumentation instrumentation) {
    try {
      NativeAgent.leaveOutAllocations(true);
      start(options, instrumentation, Companion::deleteStrayFolders);
    } catch (Throwable e) {
      // Not even this could be printed. The program runs on.
    } finally {
      NativeAgent.leaveOutAllocations(false); // the program's own thread goes on
    }
  }

  public static void agentmain(String options, Instrumentation instrumentation) {
    start(options, instrumentation, () -> {});
  }

  /** @param cleanUp what is done first, when the agent is there */
  private static void start(String text, Instrumentation instrumentation, Runnable cleanUp) {
    if (!IS_STARTED.compareAndSet(false, true)) {
      Console.print("the companion is already running: ignoring the options '" + text + "'");
      return;
    }
    NativeAgent.leaveOutAllocations(true);
    try {
      start(Options.parse(text), instrumentation, cleanUp);
    } catch (SecurityException e) {
      Console.print("the security manager prevents profiling: the policy has to grant"
          + " java.security.AllPermission to javanativeagent.jar (" + e.getMessage() + ")");
    } catch (Throwable e) {
      Console.print("nothing is profiled: ", e);
    } finally {
      NativeAgent.leaveOutAllocations(false); // the program's own thread goes on
    }
  }

  private static void start(Options options, Instrumentation instrumentation, Runnable cleanUp) {
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
    cleanUp.run();
    AgentThread.requireSpare(SPARE_THREADS);
    Controller controller = new Controller(options.values(), instrumentation);
    controller.startClock();
    Runtime.getRuntime().addShutdownHook(AgentThread.inAnyCase("end", () -> end(controller)));
    controller.begin();
    controller.after(
        Duration.ofSeconds(SECONDS_UNTIL_MAIN_HAS_BEGUN), () -> meetManagement(controller));
  }

  private static void meetManagement(Controller controller) {
    register(controller);
    deleteOldLogs();
  }

  private static void end(Controller controller) {
    try {
      controller.end();
      deleteOldLogs();
    } catch (Throwable e) {
      Console.print("", e);
    }
  }

  private static void deleteOldLogs() {
    String home = IS_CLEANED_UP.getAndSet(true) ? null : VmArguments.ofThisJvm().home();
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
    } catch (NoClassDefFoundError e) {
      if (!(e.getCause() instanceof ClassNotFoundException)) {
        throw e; // there was no memory for a class
      }
      // A Java without the module java.management has no one to ask for the bean.
    }
  }
}
