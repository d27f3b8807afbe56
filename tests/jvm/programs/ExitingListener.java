import java.lang.management.ManagementFactory;
import javax.management.MBeanServer;
import javax.management.ObjectName;

/** Ends the JVM from a listener, as soon as a report is written. */
public final class ExitingListener {
  private ExitingListener() {}

  public static void main(String[] args) throws Exception {
    MBeanServer server = ManagementFactory.getPlatformMBeanServer();
    ObjectName name = new ObjectName("com.korvane.tracewell:type=NativeAgent");
    Await.that("bean", () -> server.isRegistered(name));
    server.addNotificationListener(name, (told, handback) -> System.exit(7), null, null);
    Thread.sleep(60_000);
  }
}
