package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.VmArguments;
import java.lang.instrument.Instrumentation;
import java.lang.management.ManagementFactory;
import java.nio.file.InvalidPathException;
import java.nio.file.Paths;
import java.time.Duration;
import java.time.Instant;
import java.util.concurrent.atomic.AtomicBoolean;

/**
 * Where a JVM starts the companion, with {@code -javaagent:javanativeagent.jar=OPTIONS}. Whatever
 * goes wrong is said on standard error, and the program runs on.
 */
public final class Companion {
  /**
   * Programs choose their log manager early in {@code main}, and whatever has to do with management
   * makes the JVM settle on one: it has to wait.
   */
  private static final Duration kUntilMainHasBegun = Duration.ofSeconds(1);

  private static final AtomicBoolean kIsStarted = new AtomicBoolean();
  private static final AtomicBoolean kIsCleanedUp = new AtomicBoolean();

  private Companion() {}

  public static void premain(String options, Instrumentation instrumentation) {
    start(options, instrumentation);
  }

  public static void agentmain(String options, Instrumentation instrumentation) {
    start(options, instrumentation);
  }

  private static void start(String text, Instrumentation instrumentation) {
    if (!kIsStarted.compareAndSet(false, true)) {
      Console.say("the companion runs already: its options '" + text + "' are left out");
      return;
    }
    try {
      start(Options.parse(text), instrumentation);
    } catch (SecurityException e) {
      Console.say("the security manager lets nothing be profiled: the policy has to grant"
          + " java.security.AllPermission to javanativeagent.jar (" + e.getMessage() + ")");
    } catch (RuntimeException | LinkageError e) {
      Console.say("nothing is profiled: " + e);
    }
  }

  private static void start(Options options, Instrumentation instrumentation) {
    for (String problem : options.problems()) {
      Console.say(problem);
    }
    if (!NativeAgent.isLoaded()) {
      Console.say("nothing is profiled: the JVM was started without"
          + " -agentpath:/path/to/libjavanativeagent.so");
      return;
    }
    Controller controller = new Controller(options.values(), instrumentation);
    Runtime.getRuntime().addShutdownHook(AgentThread.of("end", () -> end(controller)));
    controller.begin();
    controller.after(kUntilMainHasBegun, () -> meetManagement(controller));
  }

  private static void meetManagement(Controller controller) {
    register(controller);
    cleanUp();
  }

  private static void end(Controller controller) {
    controller.end();
    cleanUp();
  }

  private static void cleanUp() {
    String home = kIsCleanedUp.getAndSet(true) ? null : VmArguments.ofThisJvm().home();
    if (home == null) {
      return;
    }
    try {
      HomeCleanUp.deleteOldLogs(Paths.get(home), Instant.now());
      HomeCleanUp.deleteStrayFolders(home, Paths.get(""), vmStart());
    } catch (InvalidPathException e) {
      // A name that this locale cannot spell: what is there stays.
    }
  }

  /** When the process began, as its uptime tells: the agent is loaded before the VM is whole. */
  private static Instant vmStart() {
    return Instant.now().minusMillis(ManagementFactory.getRuntimeMXBean().getUptime());
  }

  private static void register(Controller controller) {
    try {
      NativeAgentBean.register(controller);
    } catch (NoClassDefFoundError e) {
      // A Java without the module java.management has no one to ask for the bean.
    }
  }
}
