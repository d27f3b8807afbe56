import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.SQLIntegrityConstraintViolationException;
import java.sql.Statement;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * An embedded SQL database in memory under the load of several threads: all book on the same few
 * accounts, ask for sums on one connection that they share, and try now and then to open an account
 * that is there already. Prints sums that do not depend on the order in which the threads run.
 *
 * <p>Usage: {@code SqlLoad JDBC_URL THREADS BOOKINGS}
 */
public final class SqlLoad {
  private static final int ACCOUNTS = 2;
  private static final int OPENINGS = 5;
  private static final int SUM_INTERVAL = 5;

  /** Lets the load last for some lock sessions on a fast machine, too. */
  private static final int PAUSE_MILLIS = 2;

  private final String url;
  private final Connection shared;
  private final AtomicInteger refused = new AtomicInteger();

  private SqlLoad(String url, Connection shared) {
    this.url = url;
    this.shared = shared;
  }

  public static void main(String[] args) throws Exception {
    int threads = Integer.parseInt(args[1]);
    int bookings = Integer.parseInt(args[2]);
    try (Connection connection = DriverManager.getConnection(args[0])) {
      SqlLoad load = new SqlLoad(args[0], connection);
      load.createTables();
      List<Thread> workers = new ArrayList<>();
      for (int i = 0; i < threads; i++) {
        int first = i;
        Thread worker = new Thread(() -> load.work(first, bookings), "teller-" + i);
        workers.add(worker);
        worker.start();
      }
      for (Thread worker : workers) {
        worker.join();
      }
      load.print();
    }
  }

  private void createTables() throws SQLException {
    try (Statement statement = shared.createStatement()) {
      statement.execute("CREATE TABLE account (id INT PRIMARY KEY, balance BIGINT NOT NULL)");
      statement.execute("CREATE TABLE booking (account INT NOT NULL, amount INT NOT NULL)");
      for (int id = 0; id < ACCOUNTS; id++) {
        statement.execute("INSERT INTO account VALUES (" + id + ", 0)");
      }
    }
  }

  private void work(int worker, int bookings) {
    try (Connection connection = DriverManager.getConnection(url);
        PreparedStatement update =
            connection.prepareStatement("UPDATE account SET balance = balance + ? WHERE id = ?");
        PreparedStatement insert =
            connection.prepareStatement("INSERT INTO booking VALUES (?, ?)")) {
      connection.setAutoCommit(false);
      for (int i = 0; i < bookings; i++) {
        int account = (worker + i) % ACCOUNTS;
        int amount = 1 + i % 10;
        update.setInt(1, amount);
        update.setInt(2, account);
        update.executeUpdate();
        insert.setInt(1, account);
        insert.setInt(2, amount);
        insert.executeUpdate();
        connection.commit();
        if (i < OPENINGS) {
          openAgain(connection, account);
        }
        if (i % SUM_INTERVAL == 0) {
          askForSum();
        }
        Thread.sleep(PAUSE_MILLIS);
      }
    } catch (SQLException | InterruptedException e) {
      e.printStackTrace();
      System.exit(4);
    }
  }

  private void openAgain(Connection connection, int account) throws SQLException {
    try (PreparedStatement open =
        connection.prepareStatement("INSERT INTO account VALUES (?, 0)")) {
      open.setInt(1, account);
      open.executeUpdate();
    } catch (SQLIntegrityConstraintViolationException e) {
      refused.incrementAndGet();
    }
    connection.rollback();
  }

  private void askForSum() throws SQLException {
    try (PreparedStatement sum = shared.prepareStatement("SELECT SUM(amount * 1.5) FROM booking")) {
      sum.executeQuery().next();
    }
  }

  private void print() throws SQLException {
    try (Statement statement = shared.createStatement()) {
      ResultSet sums = statement.executeQuery("SELECT SUM(balance), COUNT(*) FROM account");
      sums.next();
      System.out.println("balance " + sums.getLong(1) + " in " + sums.getInt(2) + " accounts");
      ResultSet counts = statement.executeQuery("SELECT COUNT(*), SUM(amount) FROM booking");
      counts.next();
      System.out.println("booked " + counts.getLong(2) + " in " + counts.getInt(1) + " bookings");
    }
    System.out.println("refused " + refused.get());
  }
}
