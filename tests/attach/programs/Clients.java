import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.net.HttpURLConnection;
import java.net.URI;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.SQLException;
import java.sql.SQLIntegrityConstraintViolationException;
import java.sql.Statement;
import java.util.concurrent.atomic.AtomicLong;

/**
 * Clients of a server, which ask it all the time. For each line of its input it prints
 * "ANSWERS ERRORS LONGEST" since the line before: the longest time for an answer, in milliseconds,
 * where those that are awaited yet count as well. Ends with its input.
 *
 * <p>Usage: {@code Clients (web | sql) PORT THREADS}
 */
public final class Clients {
  private static final int ACCOUNTS = 4;
  private static final int PAUSE_MILLIS = 5;

  private static final AtomicLong ANSWERS = new AtomicLong();
  private static final AtomicLong ERRORS = new AtomicLong();
  private static final AtomicLong LONGEST = new AtomicLong();

  /** What a client asks again and again. */
  private interface Question {
    void ask(int count) throws Exception;
  }

  private interface Client {
    Question open() throws Exception;
  }

  public static void main(String[] args) throws Exception {
    int port = Integer.parseInt(args[1]);
    boolean web = args[0].equals("web");
    if (!web) {
      createAccounts(port);
    }
    AtomicLong[] since = new AtomicLong[Integer.parseInt(args[2])];
    for (int i = 0; i < since.length; i++) {
      AtomicLong asked = since[i] = new AtomicLong(System.nanoTime());
      Client opened = () -> web ? browser(port) : teller(port);
      Thread client = new Thread(() -> run(opened, asked));
      client.setDaemon(true);
      client.start();
    }
    BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
    while (in.readLine() != null) {
      long now = System.nanoTime();
      for (AtomicLong asked : since) {
        LONGEST.accumulateAndGet(now - asked.get(), Math::max);
      }
      long millis = LONGEST.getAndSet(0) / 1_000_000;
      System.out.println(ANSWERS.getAndSet(0) + " " + ERRORS.getAndSet(0) + " " + millis);
    }
  }

  private static void run(Client client, AtomicLong asked) {
    try {
      Question question = client.open();
      for (int count = 0; ; count++) {
        asked.set(System.nanoTime());
        question.ask(count);
        ANSWERS.incrementAndGet();
        LONGEST.accumulateAndGet(System.nanoTime() - asked.get(), Math::max);
        Thread.sleep(PAUSE_MILLIS);
      }
    } catch (Exception e) {
      e.printStackTrace();
      ERRORS.incrementAndGet();
    }
  }

  private static Question browser(int port) throws Exception {
    URI uri = URI.create("http://localhost:" + port + "/");
    return count -> {
      HttpURLConnection connection = (HttpURLConnection) uri.toURL().openConnection();
      String answer = new String(connection.getInputStream().readAllBytes());
      if (connection.getResponseCode() != 200 || !answer.startsWith("answer ")) {
        throw new IllegalStateException(answer);
      }
    };
  }

  private static String url(int port) {
    return "jdbc:h2:tcp://localhost:" + port + "/mem:bank;DB_CLOSE_DELAY=-1;LOCK_TIMEOUT=60000";
  }

  private static void createAccounts(int port) throws SQLException {
    try (Connection connection = DriverManager.getConnection(url(port));
        Statement statement = connection.createStatement()) {
      statement.execute("CREATE TABLE account (id INT PRIMARY KEY, balance BIGINT NOT NULL)");
      for (int id = 0; id < ACCOUNTS; id++) {
        statement.execute("INSERT INTO account VALUES (" + id + ", 0)");
      }
    }
  }

  /** Books, and tries every fourth time to open an account that is there already. */
  private static Question teller(int port) throws SQLException {
    Connection connection = DriverManager.getConnection(url(port));
    PreparedStatement book =
        connection.prepareStatement("UPDATE account SET balance = balance + 1 WHERE id = ?");
    PreparedStatement open = connection.prepareStatement("INSERT INTO account VALUES (?, 0)");
    return count -> {
      PreparedStatement statement = count % 4 == 0 ? open : book;
      statement.setInt(1, count % ACCOUNTS);
      try {
        if (statement.executeUpdate() != 1 || statement == open) {
          throw new IllegalStateException("booked nothing");
        }
      } catch (SQLIntegrityConstraintViolationException e) {
        if (statement != open) {
          throw e;
        }
      }
    };
  }

  private Clients() {}
}
