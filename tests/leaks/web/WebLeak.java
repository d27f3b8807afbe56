import jakarta.servlet.http.HttpServlet;
import jakarta.servlet.http.HttpServletRequest;
import jakarta.servlet.http.HttpServletResponse;
import java.io.IOException;
import java.io.InputStream;
import java.net.URL;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Collections;
import java.util.Random;
import org.apache.catalina.Context;
import org.apache.catalina.startup.Tomcat;

/**
 * An embedded web server whose sessions never expire, under clients that send no cookie.
 *
 * <p>Usage: {@code WebLeak web-sessions SECONDS SEED}.
 */
public final class WebLeak implements Program {
  private static final int NEVER = -1;

  private URL url;

  static final class Basket {
    final byte[] lines = new byte[4000];
  }

  private static final class Shop extends HttpServlet {
    private static final long serialVersionUID = 1;

    @Override
    protected void doGet(HttpServletRequest request, HttpServletResponse response)
        throws IOException {
      request.getSession().setAttribute("basket", new Basket());
      response.getWriter().println("welcome");
    }
  }

  public static void main(String[] args) throws Exception {
    Programs.main(Collections.singletonMap("web-sessions", new WebLeak()), args);
  }

  @Override
  public void start() throws Exception {
    Path base = Files.createTempDirectory(Path.of("."), "web").toAbsolutePath();
    Tomcat server = new Tomcat();
    server.setBaseDir(base.toString());
    server.setPort(0);
    Context context = server.addContext("", base.toString());
    context.setSessionTimeout(NEVER);
    Tomcat.addServlet(context, "shop", new Shop());
    context.addServletMappingDecoded("/", "shop");
    server.getConnector();
    server.start();
    url = new URL("http://localhost:" + server.getConnector().getLocalPort() + "/");
  }

  @Override
  public void serve(Random random) throws Exception {
    if (random.nextInt(5) == 0) {
      try (InputStream answer = url.openStream()) {
        answer.readAllBytes();
      }
    }
  }
}
