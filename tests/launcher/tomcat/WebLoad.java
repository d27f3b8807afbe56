import jakarta.servlet.http.HttpServlet;
import jakarta.servlet.http.HttpServletRequest;
import jakarta.servlet.http.HttpServletResponse;
import java.io.IOException;
import java.io.InputStream;
import java.net.URL;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.locks.ReentrantLock;
import org.apache.catalina.Context;
import org.apache.catalina.startup.Tomcat;

/**
 * An embedded web server under the load of several clients, whose requests share a monitor and a
 * lock. Prints how many it has served.
 *
 * <p>Usage: {@code WebLoad CLIENTS REQUESTS}, the latter of each client.
 */
public final class WebLoad {
  static final class Stock {
    private int sold; // guarded by this

    synchronized int sell() throws InterruptedException {
      Thread.sleep(2);
      return ++sold;
    }
  }

  private static final class Shop extends HttpServlet {
    private final transient Stock stock = new Stock();
    private final transient ReentrantLock ledger = new ReentrantLock();

    @Override
    protected void doGet(HttpServletRequest request, HttpServletResponse response)
        throws IOException {
      try {
        int sold = stock.sell();
        ledger.lock();
        try {
          Thread.sleep(3);
        } finally {
          ledger.unlock();
        }
        response.getWriter().println(sold);
      } catch (InterruptedException e) {
        throw new IOException(e);
      }
    }
  }

  private WebLoad() {}

  public static void main(String[] args) throws Exception {
    Path base = Files.createTempDirectory(Path.of("."), "web");
    Tomcat server = new Tomcat();
    server.setBaseDir(base.toAbsolutePath().toString());
    server.setPort(0);
    Context context = server.addContext("", base.toAbsolutePath().toString());
    Tomcat.addServlet(context, "shop", new Shop());
    context.addServletMappingDecoded("/", "shop");
    server.getConnector();
    server.start();
    URL url = new URL("http://localhost:" + server.getConnector().getLocalPort() + "/");
    List<Thread> clients = new ArrayList<>();
    for (int i = 0; i < Integer.parseInt(args[0]); i++) {
      Thread client = new Thread(() -> load(url, Integer.parseInt(args[1])), "client-" + i);
      clients.add(client);
      client.start();
    }
    for (Thread each : clients) {
      each.join();
    }
    server.stop();
    server.destroy();
    System.out.println("served " + clients.size() * Integer.parseInt(args[1]));
  }

  private static void load(URL url, int requests) {
    try {
      for (int i = 0; i < requests; i++) {
        try (InputStream answer = url.openStream()) {
          answer.readAllBytes();
        }
      }
    } catch (IOException e) {
      e.printStackTrace();
      System.exit(4);
    }
  }
}
