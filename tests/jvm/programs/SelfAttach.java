import java.io.File;
import java.lang.management.ManagementFactory;
import java.lang.reflect.InvocationTargetException;
import java.net.URL;
import java.net.URLClassLoader;

/**
 * Loads the agent into the program's own JVM, as a client of the attach interface does. It takes
 * {@code -Djdk.attach.allowAttachSelf=true}.
 */
final class SelfAttach {
  private static ClassLoader loader;

  private SelfAttach() {}

  /** Of the attach interface, which loads a library once; Java 8 has it in an archive of tools. */
  private static synchronized ClassLoader loader() throws Exception {
    File tools = new File(System.getProperty("java.home"), "../lib/tools.jar");
    if (loader == null) {
      loader = tools.exists()
          ? new URLClassLoader(new URL[] {tools.toURI().toURL()})
          : ClassLoader.getSystemClassLoader();
    }
    return loader;
  }

  /** What Agent_OnAttach answers. */
  static int load(String library, String options) throws Exception {
    String pid = ManagementFactory.getRuntimeMXBean().getName().split("@")[0];
    Class<?> machines = Class.forName("com.sun.tools.attach.VirtualMachine", true, loader());
    Object machine = machines.getMethod("attach", String.class).invoke(null, pid);
    try {
      machines.getMethod("loadAgentPath", String.class, String.class)
          .invoke(machine, library, options);
      return 0;
    } catch (InvocationTargetException e) {
      Throwable refused = e.getCause();
      if (!refused.getClass().getName().endsWith("AgentInitializationException")) {
        throw e;
      }
      return (int) refused.getClass().getMethod("returnValue").invoke(refused);
    } finally {
      machines.getMethod("detach").invoke(machine);
    }
  }
}
