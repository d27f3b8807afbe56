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
 * The controller for management clients. Listeners are notified on a thread of their own: code of
 * the program, which may take its time, control the agent or end the JVM, must not have the turn.
 */
final class NativeAgentBean extends NotificationBroadcasterSupport implements NativeAgentMXBean {
  private static final String NAME = "com.korvane.tracewell:type=NativeAgent";
  private static final String REPORT_WRITTEN = "tracewell.report.written";

  private static NativeAgentBean bean; // in turn

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
   * Makes the controller known to the platform's MBean server. When this fails with an error, the
   * caller calls it once more.
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
      controller.onReport((feature, report) -> known.notifyLater(name, feature, report));
      ManagementFactory.getPlatformMBeanServer().registerMBean(known, name);
    } catch (InstanceAlreadyExistsException e) {
      if (isFirst) {
        Console.print("the companion's MBean cannot be registered: " + e);
      }
    } catch (JMException e) {
      Console.print("the companion's MBean cannot be registered: " + e);
    }
  }

  /** Nobody is to know it any more; nothing when nobody does. */
  static void unregister() {
    NativeAgentBean known = bean;
    bean = null;
    if (known == null) {
      return;
    }
    known.listeners.end();
    try {
      ManagementFactory.getPlatformMBeanServer().unregisterMBean(new ObjectName(NAME));
    } catch (JMException e) {
      Console.print("the companion's MBean cannot be removed: " + e);
    }
  }

  private void notifyLater(ObjectName name, Feature feature, Path report) {
    String message = "The " + feature + " report " + report + " was written";
    Notification notification =
        new Notification(REPORT_WRITTEN, name, lastNotification.incrementAndGet(), message);
    notification.setUserData(report.toString());
    listeners.execute(() -> sendNotification(notification));
  }

  @Override
  public String getState() {
    Status now = controller.status();
    return "locks: " + now.of(Feature.LOCKS).state + ", exceptions: "
        + now.of(Feature.EXCEPTIONS).state + ", memory: " + now.of(Feature.MEMORY).state
        + ", contention: " + now.of(Feature.CONTENTION).state
        + ", allocations: " + now.of(Feature.ALLOCATIONS).state;
  }

  @Override
  public String[] getFeatures() {
    return NativeAgent.features().stream().map(Feature::word).toArray(String[]::new);
  }

  @Override
  public String getOutputFolder() {
    return text(controller.status().runFolder);
  }

  @Override
  public String getLockState() {
    return of(Feature.LOCKS).state;
  }

  @Override
  public String getExceptionState() {
    return of(Feature.EXCEPTIONS).state;
  }

  @Override
  public String getMemoryState() {
    return of(Feature.MEMORY).state;
  }

  @Override
  public String getContentionState() {
    return of(Feature.CONTENTION).state;
  }

  @Override
  public String getAllocationState() {
    return of(Feature.ALLOCATIONS).state;
  }

  @Override
  public int getLockSessions() {
    return of(Feature.LOCKS).sessions;
  }

  @Override
  public int getMemorySessions() {
    return of(Feature.MEMORY).sessions;
  }

  @Override
  public int getContentionSessions() {
    return of(Feature.CONTENTION).sessions;
  }

  @Override
  public int getAllocationSessions() {
    return of(Feature.ALLOCATIONS).sessions;
  }

  @Override
  public long getExceptionsRecorded() {
    return controller.status().exceptionsRecorded;
  }

  @Override
  public long getExceptionsDropped() {
    return controller.status().exceptionsDropped;
  }

  @Override
  public int getSweeps() {
    return controller.status().sweeps.count;
  }

  @Override
  public double getLastSweepMillis() {
    return controller.status().sweeps.lastMillis;
  }

  @Override
  public long getObjectsFollowed() {
    return controller.status().sweeps.added;
  }

  @Override
  public String getLastLockReport() {
    return text(of(Feature.LOCKS).report);
  }

  @Override
  public long getOwnerLooksMade() {
    return of(Feature.LOCKS).ownerLookupsMade;
  }

  @Override
  public long getOwnerLooksLeftOut() {
    return of(Feature.LOCKS).ownerLookupsSkipped;
  }

  @Override
  public String getLastMemoryReport() {
    return text(of(Feature.MEMORY).report);
  }

  @Override
  public String getLastContentionReport() {
    return text(of(Feature.CONTENTION).report);
  }

  @Override
  public String getLastAllocationReport() {
    return text(of(Feature.ALLOCATIONS).report);
  }

  @Override
  public String getExceptionFile() {
    return text(controller.status().exceptionFile);
  }

  @Override
  public void startLocks(String options) {
    start(Feature.LOCKS, options);
  }

  @Override
  public String stopLocks() throws IOException {
    return stop(Feature.LOCKS);
  }

  @Override
  public void startExceptions(String options) {
    start(Feature.EXCEPTIONS, options);
  }

  @Override
  public String stopExceptions() throws IOException {
    return stop(Feature.EXCEPTIONS);
  }

  @Override
  public void startMemory(String options) {
    start(Feature.MEMORY, options);
  }

  @Override
  public String stopMemory() throws IOException {
    return stop(Feature.MEMORY);
  }

  @Override
  public void startContention(String options) {
    start(Feature.CONTENTION, options);
  }

  @Override
  public String stopContention() throws IOException {
    return stop(Feature.CONTENTION);
  }

  @Override
  public void startAllocations(String options) {
    start(Feature.ALLOCATIONS, options);
  }

  @Override
  public String stopAllocations() throws IOException {
    return stop(Feature.ALLOCATIONS);
  }

  private Status.Part of(Feature feature) {
    return controller.status().of(feature);
  }

  private void start(Feature feature, String options) {
    AgentThread.help(
        () -> {
          controller.start(feature, options);
          return null;
        });
  }

  private String stop(Feature feature) throws IOException {
    return text(AgentThread.<Path, IOException>help(() -> controller.stop(feature)));
  }

  private static String text(Path path) {
    return path == null ? null : path.toString();
  }
}
