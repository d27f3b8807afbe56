import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ConcurrentSkipListMap;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * An embedded SQL database in memory, of which several threads ask what it must refuse: keys that
 * are taken, statements that it does not understand, tables and columns that are not there, values
 * that are no numbers, and statements that are closed. Each refusal is thrown on as an exception of
 * the program's own, which is thrown again in half of the cases and replaced in the others. Prints
 * by class how many exceptions the program has made itself, how many it has thrown again, and how
 * many of the database it has caught.
 *
 * <p>Usage: {@code SqlErrors JDBC_URL THREADS ROUNDS}
 */
public final class SqlErrors {
  private static final Map<String, AtomicInteger> COUNTS = new ConcurrentSkipListMap<>();

  private final String url;

  private SqlErrors(String url) {
    this.url = url;
  }

  public static void main(String[] args) throws Exception {
    int threads = Integer.parseInt(args[1]);
    int rounds = Integer.parseInt(args[2]);
    try (Connection connection = DriverManager.getConnection(args[0]);
        Statement statement = connection.createStatement()) {
      statement.execute("CREATE TABLE account (id INT PRIMARY KEY, name VARCHAR(20) NOT NULL)");
      statement.execute("INSERT INTO account VALUES (1, 'first')");
      SqlErrors errors = new SqlErrors(args[0]);
      List<Thread> workers = new ArrayList<>();
      for (int i = 0; i < threads; i++) {
        Thread worker = new Thread(() -> errors.work(rounds), "client-" + i);
        workers.add(worker);
        worker.start();
      }
      for (Thread worker : workers) {
        worker.join();
      }
    }
    COUNTS.forEach((what, count) -> System.out.println(what + " " + count));
  }

  private void work(int rounds) {
    try (Connection connection = DriverManager.getConnection(url);
        Statement statement = connection.createStatement();
        PreparedStatement insert =
            connection.prepareStatement("INSERT INTO account VALUES (?, ?)")) {
      List<Attempt> attempts = new ArrayList<>();
      attempts.add(() -> insertAgain(insert));
      attempts.add(() -> statement.execute("SELEC id FROM account"));
      attempts.add(() -> statement.executeQuery("SELECT id FROM nowhere"));
      attempts.add(() -> statement.executeQuery("SELECT nothing FROM account"));
      attempts.add(() -> readNumber(statement));
      attempts.add(() -> useClosed(connection));
      for (int i = 0; i < rounds; i++) {
        for (Attempt attempt : attempts) {
          mustFail(attempt, i % 2 == 0);
        }
      }
    } catch (SQLException e) {
      e.printStackTrace();
      System.exit(4);
    }
  }

  private static void insertAgain(PreparedStatement insert) throws SQLException {
    insert.setInt(1, 1);
    insert.setString(2, "second");
    insert.executeUpdate();
  }

  private static void readNumber(Statement statement) throws SQLException {
    try (ResultSet rows = statement.executeQuery("SELECT name FROM account")) {
      rows.next();
      rows.getInt(1);
    }
  }

  private static void useClosed(Connection connection) throws SQLException {
    Statement statement = connection.createStatement();
    statement.close();
    statement.execute("SELECT 1 FROM account");
  }

  private static void mustFail(Attempt attempt, boolean isThrownAgain) {
    try {
      tryIt(attempt, isThrownAgain);
      throw new IllegalStateException("nothing was refused");
    } catch (Refused e) {
      count("caught", e.getCause());
    }
  }

  private static void tryIt(Attempt attempt, boolean isThrownAgain) {
    try {
      throwOn(attempt);
    } catch (Refused e) {
      if (isThrownAgain) {
        count("again", e);
        throw e;
      }
      throw new Refused(new NotThrown(e).getCause().getCause());
    }
  }

  private static void throwOn(Attempt attempt) {
    try {
      attempt.run();
    } catch (SQLException e) {
      throw new Refused(e);
    }
  }

  private static void count(String what, Throwable exception) {
    String key = what + " " + exception.getClass().getName();
    COUNTS.computeIfAbsent(key, each -> new AtomicInteger()).incrementAndGet();
  }

  private interface Attempt {
    void run() throws SQLException;
  }

  private static final class Refused extends RuntimeException {
    private static final long serialVersionUID = 1;

    Refused(Throwable cause) {
      super(cause);
      count("made", this);
    }
  }

  /** Is made, but never thrown. */
  private static final class NotThrown extends Exception {
    private static final long serialVersionUID = 1;

    NotThrown(Throwable cause) {
      super(cause);
      count("made", this);
    }
  }
}
