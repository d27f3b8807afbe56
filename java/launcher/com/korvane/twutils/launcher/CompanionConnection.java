package com.korvane.twutils.launcher;

import com.korvane.twutils.nativeagent.companion.NativeAgentMXBean;
import java.io.IOException;
import java.time.Duration;
import javax.management.JMX;
import javax.management.MBeanServerConnection;
import javax.management.MalformedObjectNameException;
import javax.management.ObjectName;
import javax.management.remote.JMXConnector;
import javax.management.remote.JMXConnectorFactory;
import javax.management.remote.JMXServiceURL;

/** An open connection to the companion in another JVM. */
final class CompanionConnection implements AutoCloseable {
  private static final String BEAN = "com.korvane.tracewell:type=NativeAgent";

  /** The companion registers its bean a moment after the JVM's start. */
  private static final Duration PATIENCE = Duration.ofSeconds(10);

  private final JMXConnector connector;
  private final NativeAgentMXBean bean;

  private CompanionConnection(JMXConnector connector, NativeAgentMXBean bean) {
    this.connector = connector;
    this.bean = bean;
  }

  /** Opens the connection to the JVM whose connector has this address. */
  static CompanionConnection open(String address) throws IOException {
    JMXConnector connector = JMXConnectorFactory.connect(new JMXServiceURL(address));
    try {
      MBeanServerConnection server = connector.getMBeanServerConnection();
      ObjectName name = new ObjectName(BEAN);
      awaitBean(server, name);
      return new CompanionConnection(
          connector, JMX.newMXBeanProxy(server, name, NativeAgentMXBean.class));
    } catch (MalformedObjectNameException e) {
      throw new AssertionError(e);
    } catch (IOException | RuntimeException e) {
      connector.close();
      throw e;
    }
  }

  private static void awaitBean(MBeanServerConnection server, ObjectName name) throws IOException {
    long end = System.nanoTime() + PATIENCE.toNanos();
    while (!server.isRegistered(name)) {
      if (System.nanoTime() - end > 0) {
        throw new IOException(
            "its companion does not answer; see the standard error of the JVM");
      }
      try {
        Thread.sleep(100);
      } catch (InterruptedException e) {
        throw new IOException("interrupted", e);
      }
    }
  }

  NativeAgentMXBean bean() {
    return bean;
  }

  @Override
  public void close() throws IOException {
    connector.close();
  }
}
