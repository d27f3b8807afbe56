import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;
import java.util.Random;

/** A database in memory whose rows are replaced, by statements that are all closed. */
final class ClosedStatements implements Program {
  private static final String URL = "jdbc:h2:mem:shop;DB_CLOSE_DELAY=-1";
  private static final String PUT = "MERGE INTO stock VALUES (?, ?)";
  private static final String GET = "SELECT text FROM stock WHERE id = ?";
  private static final int ROWS = 1000;

  @Override
  public void start() throws SQLException {
    try (Connection connection = DriverManager.getConnection(URL);
         Statement create = connection.createStatement()) {
      create.execute("CREATE TABLE stock(id INT PRIMARY KEY, text VARCHAR)");
    }
  }

  @Override
  public void serve(Random random) throws SQLException {
    if (random.nextInt(5) != 0) {
      return;
    }
    try (Connection connection = DriverManager.getConnection(URL);
         PreparedStatement put = connection.prepareStatement(PUT);
         PreparedStatement get = connection.prepareStatement(GET)) {
      int id = random.nextInt(ROWS);
      put.setInt(1, id);
      put.setString(2, "stock " + random.nextLong() + new String(new char[500]).replace('\0', '.'));
      put.executeUpdate();
      get.setInt(1, id);
      try (ResultSet found = get.executeQuery()) {
        if (!found.next()) {
          throw new IllegalStateException("row " + id + " is gone");
        }
      }
    }
  }
}
