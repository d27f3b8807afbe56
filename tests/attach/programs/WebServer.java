import jakarta.servlet.http.HttpServlet;
import jakarta.servlet.http.HttpServletRequest;
import jakarta.servlet.http.HttpServletResponse;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import org.apache.catalina.Context;
import org.apache.catalina.startup.Tomcat;

/**
 * An embedded web server. An answer takes a lock that all of them share and allocates; every fourth
 * fails within, and is given all the same. Prints "port N".
 */
public final class WebServer {
  private static final int KILOBYTE = 1024;

  private static final class Counter extends HttpServlet {
    private static final long serialVersionUID = 1;

    private final Object lock = new Object();
    private long answers;

    @Override
    protected void doGet(HttpServletRequest request, HttpServletResponse response)
        throws IOException {
      long answer = next();
      byte[] text = new byte[16 * KILOBYTE];
      text[(int) (answer % text.length)] = 1;
      try {
        Long.parseLong(answer % 4 == 0 ? "none" : "1");
      } catch (NumberFormatException e) {
        response.setHeader("failed", e.getMessage());
      }
      response.getWriter().println("answer " + answer + " of " + text.length);
    }

    private long next() {
      synchronized (lock) {
        long end = System.nanoTime() + 100_000;
        while (System.nanoTime() < end) {
          Thread.onSpinWait();
        }
        return ++answers;
      }
    }
  }

  public static void main(String[] args) throws Exception {
    Path base = Files.createTempDirectory(Path.of("."), "web").toAbsolutePath();
    Tomcat server = new Tomcat();
    server.setBaseDir(base.toString());
    server.setPort(0);
    Context context = server.addContext("", base.toString());
    Tomcat.addServlet(context, "counter", new Counter()).addMapping("/");
    server.getConnector();
    server.start();
    System.out.println("port " + server.getConnector().getLocalPort());
    server.getServer().await();
  }

  private WebServer() {}
}
