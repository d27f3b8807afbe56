import com.example.tracked.Tracked;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import javax.management.MBeanServerConnection;
import javax.management.Notification;
import javax.management.ObjectName;
import javax.management.RuntimeMBeanException;
import javax.management.remote.JMXConnector;
import javax.management.remote.JMXConnectorFactory;
import javax.management.remote.JMXConnectorServer;
import javax.management.remote.JMXConnectorServerFactory;
import javax.management.remote.JMXServiceURL;

/** Steers the companion through a JMX connection to itself, as a management client would. */
public final class Managed {
  private static MBeanServerConnection server;
  private static ObjectName name;

  private Managed() {}

  public static void main(String[] args) throws Exception {
    Tracked kept = new Tracked();
    name = new ObjectName("com.korvane.tracewell:type=NativeAgent");
    JMXConnectorServer listening =
        JMXConnectorServerFactory.newJMXConnectorServer(
            new JMXServiceURL("service:jmx:rmi://127.0.0.1"), null,
            ManagementFactory.getPlatformMBeanServer());
    listening.start();
    try (JMXConnector connector = JMXConnectorFactory.connect(listening.getAddress())) {
      server = connector.getMBeanServerConnection();
      Await.that("bean", Managed::isRegistered);
      LinkedBlockingQueue<Notification> told = new LinkedBlockingQueue<>();
      server.addNotificationListener(name, (one, handback) -> told.add(one), null, null);
      drive(told);
    } finally {
      listening.stop();
    }
    Facts.put("kept", kept.number);
  }

  private static void drive(LinkedBlockingQueue<Notification> told) throws Exception {
    Facts.put("state", get("State"));
    Facts.put("features", String.join(" ", (String[]) get("Features")));
    Facts.put("folder", get("OutputFolder"));
    invoke("notRunning", "stopLocks");
    invoke("unknown", "startLocks", "sumary=1s");
    invoke("malformed", "startLocks", "summary=soon");

    invoke("startLocks", "startLocks", "summary=20ms,detail=1h,top=3");
    Await.that("detail", () -> "detail".equals(get("LockState")));
    invoke("twice", "startLocks", "");
    invoke("waiting", "startMemory", "");
    invoke("disturbing", "startExceptions", "");
    Facts.put("undisturbed", get("State"));
    invoke("withdrawn", "stopMemory");
    Object report = invoke("stopLocks", "stopLocks");
    Notification notification = told.poll(60, TimeUnit.SECONDS);
    Facts.put("told", notification.getType() + " " + notification.getUserData().equals(report));
    Facts.put("lastLockReport", report.equals(get("LastLockReport")));
    Facts.put("there", Files.exists(Paths.get((String) report)));

    invoke("startMemory", "startMemory", "track=com.example.tracked.*,interval=20ms");
    Await.that("sweep", () -> (Integer) get("Sweeps") > 0);
    invoke("stopMemory", "stopMemory");
    Facts.put("followed", get("ObjectsFollowed"));
    Facts.put("paused", (Double) get("LastSweepMillis") > 0);

    invoke("startExceptions", "startExceptions", "rate=4,locals=false");
    for (int i = 0; i < 3; i++) {
      try {
        Throwers.divide(1, 0);
      } catch (ArithmeticException e) {
        Throwers.use(e);
      }
    }
    invoke("refusedMeanwhile", "startLocks", "sumary=1s");
    invoke("stopExceptions", "stopExceptions");
    Facts.put("dropped", get("ExceptionsDropped"));

    invoke("noContention", "stopContention");
    invoke("manySamples", "startContention", "samples=1001");
    Facts.put("noContentionReport", get("LastContentionReport"));
    invoke("startContention", "startContention", "samples=10,interval=1s");
    Await.that("contention report", () -> get("LastContentionReport") != null);
    Facts.put("contention", get("ContentionState") + " " + get("ContentionSessions"));
    invoke("contentionTwice", "startContention", "");
    told.clear();
    Object profile = invoke("stopContention", "stopContention");
    Facts.put("contentionTold", told.poll(60, TimeUnit.SECONDS).getUserData().equals(profile));
    Facts.put("lastContentionReport", profile.equals(get("LastContentionReport")));
    invoke("noAllocations", "stopAllocations");
    invoke("startAllocations", "startAllocations", "interval=64k,write=1s");
    if (get("AllocationState").equals("running")) {
      allocations(told);
    }
    Facts.put("sessions", get("LockSessions") + " " + get("MemorySessions"));
    Facts.put("end", get("State"));
  }

  private static void allocations(LinkedBlockingQueue<Notification> told) throws Exception {
    Await.that("allocation report", () -> get("LastAllocationReport") != null);
    Facts.put("allocations", get("AllocationState") + " " + get("AllocationSessions"));
    invoke("allocationsTwice", "startAllocations", "");
    told.clear();
    Object profile = invoke("stopAllocations", "stopAllocations");
    Facts.put("allocationsTold", told.poll(60, TimeUnit.SECONDS).getUserData().equals(profile));
    Facts.put("lastAllocationReport", profile.equals(get("LastAllocationReport")));
  }

  private static boolean isRegistered() {
    try {
      return server.isRegistered(name);
    } catch (java.io.IOException e) {
      throw new IllegalStateException(e);
    }
  }

  private static Object get(String attribute) {
    try {
      return server.getAttribute(name, attribute);
    } catch (Exception e) {
      throw new IllegalStateException(e);
    }
  }

  private static Object invoke(String fact, String operation, String... arguments)
      throws Exception {
    String[] signature = new String[arguments.length];
    java.util.Arrays.fill(signature, "java.lang.String");
    try {
      Object result = server.invoke(name, operation, arguments, signature);
      Facts.put(fact, "done");
      return result;
    } catch (RuntimeMBeanException e) {
      Facts.put(fact, e.getCause().getMessage());
      return null;
    }
  }
}
