package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.file.Path;
import java.util.concurrent.atomic.AtomicLong;
import javax.management.InstanceAlreadyExistsException;
import javax.management.JMException;
import javax.management.MBeanException;
import javax.management.MBeanNotificationInfo;
import javax.management.Notification;
import javax.management.NotificationBroadcasterSupport;
import javax.management.ObjectName;
import javax.management.RuntimeMBeanException;

/**
 * The controller for management clients. Listeners are told on a thread of their own: code of the
 * program, which may take its time, control the agent or end the JVM, must not have the turn.
 */
final class NativeAgentBean extends NotificationBroadcasterSupport implements NativeAgentMXBean {
  private static final String NAME = "com.korvane.tracewell:type=NativeAgent";
  private static final String REPORT_WRITTEN = "tracewell.report.written";

  private static NativeAgentBean bean; // register's own

  private final Controller controller;
  private final Listeners listeners = new Listeners();
  private final AtomicLong lastNotification = new AtomicLong();

  private NativeAgentBean(Controller controller) {
    super(
        new MBeanNotificationInfo(
            new String[] {REPORT_WRITTEN},
            Notification.class.getName(),
            "A report was written; the user data is its path"));
    this.controller = controller;
  }

  /**
   * Makes the controller known to the platform's MBean server. When this fails with an error, it is
   * to be called once more.
   */
  static void register(Controller controller) {
    boolean isFirst = bean == null;
    try {
      ObjectName name = new ObjectName(NAME);
      if (isFirst) {
        AgentThread.addWrappers(MBeanException.class, RuntimeMBeanException.class);
        NativeAgentBean made = new NativeAgentBean(controller);
        made.listeners.start();
        bean = made;
      }
      NativeAgentBean known = bean;
      controller.onReport((kind, report) -> known.tellLater(name, kind, report));
      ManagementFactory.getPlatformMBeanServer().registerMBean(known, name);
    } catch (InstanceAlreadyExistsException e) {
      if (isFirst) {
        Console.say("there is no MBean of the companion: " + e);
      }
    } catch (JMException e) {
      Console.say("there is no MBean of the companion: " + e);
    }
  }

  private void tellLater(ObjectName name, String kind, Path report) {
    String message = "The " + kind + " report " + report + " was written";
    Notification notification =
        new Notification(REPORT_WRITTEN, name, lastNotification.incrementAndGet(), message);
    notification.setUserData(report.toString());
    listeners.execute(() -> sendNotification(notification));
  }

  @Override
  public String getState() {
    return "locks: " + getLockState() + ", exceptions: " + getExceptionState() + ", memory: "
        + getMemoryState();
  }

  @Override
  public String[] getFeatures() {
    return NativeAgent.features().stream().map(Feature::word).toArray(String[]::new);
  }

  @Override
  public String getOutputFolder() {
    return text(controller.runFolder());
  }

  @Override
  public String getLockState() {
    return controller.lockState();
  }

  @Override
  public String getExceptionState() {
    return controller.exceptionState();
  }

  @Override
  public String getMemoryState() {
    return controller.memoryState();
  }

  @Override
  public int getLockSessions() {
    return controller.lockSessions();
  }

  @Override
  public int getMemorySessions() {
    return controller.memorySessions();
  }

  @Override
  public long getExceptionsRecorded() {
    ExceptionLog log = controller.exceptions();
    return log == null ? 0 : log.recorded();
  }

  @Override
  public long getExceptionsDropped() {
    ExceptionLog log = controller.exceptions();
    return log == null ? 0 : log.dropped();
  }

  @Override
  public int getSweeps() {
    return controller.sweeps();
  }

  @Override
  public double getLastSweepMillis() {
    return controller.lastSweepMillis();
  }

  @Override
  public long getObjectsFollowed() {
    return controller.objectsAdded();
  }

  @Override
  public String getLastLockReport() {
    return text(controller.lastLockReport());
  }

  @Override
  public long getOwnerLooksMade() {
    OwnerLooks looks = controller.lastOwnerLooks();
    return looks == null ? -1 : looks.made;
  }

  @Override
  public long getOwnerLooksLeftOut() {
    OwnerLooks looks = controller.lastOwnerLooks();
    return looks == null ? -1 : looks.leftOut;
  }

  @Override
  public String getLastMemoryReport() {
    return text(controller.lastMemoryReport());
  }

  @Override
  public String getExceptionFile() {
    ExceptionLog log = controller.exceptions();
    return log == null ? null : text(log.path());
  }

  @Override
  public void startLocks(String options) {
    AgentThread.help(
        () -> {
          controller.startLocks(options);
          return null;
        });
  }

  @Override
  public String stopLocks() throws IOException {
    return text(AgentThread.<Path, IOException>help(controller::stopLocks));
  }

  @Override
  public void startExceptions(String options) {
    AgentThread.help(
        () -> {
          controller.startExceptions(options);
          return null;
        });
  }

  @Override
  public String stopExceptions() throws IOException {
    return text(AgentThread.<Path, IOException>help(controller::stopExceptions));
  }

  @Override
  public void startMemory(String options) {
    AgentThread.help(
        () -> {
          controller.startMemory(options);
          return null;
        });
  }

  @Override
  public String stopMemory() throws IOException {
    return text(AgentThread.<Path, IOException>help(controller::stopMemory));
  }

  private static String text(Path path) {
    return path == null ? null : path.toString();
  }
}
