import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import javax.management.JMException;
import javax.management.MBeanServer;
import javax.management.ObjectName;

/** A recording of the flight recorder, by its management interface: JDK 8 knows no other. */
final class Recorder {
  private final MBeanServer server = ManagementFactory.getPlatformMBeanServer();
  private final ObjectName name = new ObjectName("jdk.management.jfr:type=FlightRecorder");
  private final Object id;

  /** Begins a recording with the predefined settings "default" or those of a file. */
  Recorder(String settings) throws IOException, JMException {
    id = server.invoke(name, "newRecording", new Object[0], new String[0]);
    if (settings.equals("default")) {
      invoke("setPredefinedConfiguration", settings);
    } else {
      Path file = Paths.get(settings);
      byte[] text = Files.readAllBytes(file);
      invoke("setConfiguration", new String(text, StandardCharsets.UTF_8));
    }
    invoke("startRecording");
  }

  /** Ends the recording and writes it to a file. */
  void end(Path file) throws JMException {
    invoke("stopRecording");
    invoke("copyTo", file.toAbsolutePath().toString());
  }

  private void invoke(String operation, String... texts) throws JMException {
    Object[] arguments = texts.length == 0 ? new Object[] {id} : new Object[] {id, texts[0]};
    String[] types =
        texts.length == 0
            ? new String[] {"long"}
            : new String[] {"long", String.class.getName()};
    server.invoke(name, operation, arguments, types);
  }
}
