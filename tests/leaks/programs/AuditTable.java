import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.SQLException;
import java.sql.Statement;
import java.util.Random;

/** Each request adds a row to a table in memory, and nobody deletes any. */
final class AuditTable implements Program {
  private static final String URL = "jdbc:h2:mem:shop;DB_CLOSE_DELAY=-1";

  private static Connection connection; // guarded by AuditTable.class

  @Override
  public void start() throws SQLException {
    connection = DriverManager.getConnection(URL);
    try (Statement create = connection.createStatement()) {
      create.execute("CREATE TABLE audit(id BIGINT AUTO_INCREMENT PRIMARY KEY, text VARCHAR)");
    }
  }

  @Override
  public void serve(Random random) throws SQLException {
    audit("customer " + random.nextLong() + new String(new char[500]).replace('\0', '.'));
  }

  private static synchronized void audit(String text) throws SQLException {
    try (PreparedStatement insert =
             connection.prepareStatement("INSERT INTO audit(text) VALUES (?)")) {
      insert.setString(1, text);
      insert.executeUpdate();
    }
  }
}
